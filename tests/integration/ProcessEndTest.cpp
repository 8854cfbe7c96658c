#include "tests/support/GitSandbox.h"
#include "tests/support/Testing.h"

namespace quendo::test {
namespace {

TEST(ProcessEnd, ThreadsThatGoOnMeetNothingDestroyed) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer itself hangs in a process that forks while it ends";
#endif
    GitSandbox sandbox;
    sandbox.init();
    std::ofstream(sandbox.work() / "f") << "old";
    sandbox.commitAll("f");
    std::ofstream(sandbox.work() / "f") << "changed";
    const auto result = sandbox.run({QUENDO_LATE_WORK, sandbox.work().native()}, sandbox.root());
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
}

} // namespace
} // namespace quendo::test
