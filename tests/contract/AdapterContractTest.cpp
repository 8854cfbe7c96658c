#include "tests/contract/AdapterContract.h"

#include "quendo/git/GitAdapterFactory.h"
#include "tests/contract/ScriptedSubject.h"
#include "tests/support/GitSandbox.h"

namespace quendo::test {
namespace {

constexpr const char* gitScript = R"sh(
create() { git init -q -b main; }
commit() { git add -A; git commit -q --allow-empty -m "$1"; }
add() { git --literal-pathspecs add -- "$1"; }
remove() { git --literal-pathspecs rm -q --cached -- "$1"; }
ignore() { echo "/$1" >> .git/info/exclude; }
say() { echo "$2" > "$1"; git commit -q --allow-empty -m "$2" -- "$1"; }
conflict() {
    say "$1" base; git checkout -q -b side; say "$1" theirs
    git checkout -q main; say "$1" ours; ! git merge -q side
}
damage() { rm .git/HEAD; }
foreign() { git config core.repositoryFormatVersion 99; }
)sh";

TEST(AdapterContract, HoldsForTheScriptedAdapter) {
    EXPECT_THAT(checkAdapterContract(scriptedSubject()), testing::IsEmpty());
}

TEST(AdapterContract, HoldsForGit) {
    GitSandbox sandbox;
    sandbox.enterEnvironment();
    const ContractSubject subject{std::make_shared<git::GitAdapterFactory>, gitScript};
    EXPECT_THAT(checkAdapterContract(subject), testing::IsEmpty());
}

} // namespace
} // namespace quendo::test
