#include "tests/contract/AdapterContract.h"

#include "tests/contract/GitSubject.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/Testing.h"

namespace quendo::test {
namespace {

TEST(AdapterContract, HoldsForGit) {
    GitSandbox sandbox;
    sandbox.enterEnvironment();
    EXPECT_THAT(checkAdapterContract(gitSubject()), testing::IsEmpty());
}

} // namespace
} // namespace quendo::test
