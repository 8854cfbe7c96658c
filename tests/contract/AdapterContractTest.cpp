#include "tests/contract/AdapterContract.h"

#include "tests/contract/GitSubject.h"
#include "tests/contract/ScriptedSubject.h"
#include "tests/support/GitSandbox.h"

namespace quendo::test {
namespace {

TEST(AdapterContract, HoldsForTheScriptedAdapter) {
    EXPECT_THAT(checkAdapterContract(scriptedSubject()), testing::IsEmpty());
}

TEST(AdapterContract, HoldsForGit) {
    GitSandbox sandbox;
    sandbox.enterEnvironment();
    EXPECT_THAT(checkAdapterContract(gitSubject()), testing::IsEmpty());
}

} // namespace
} // namespace quendo::test
