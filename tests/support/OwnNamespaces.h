#pragma once

#include "tests/support/Testing.h"
#include <sched.h>
#include <unistd.h>

namespace quendo::test {

/// Ends the process of expectSuccessInOwnNamespaces() when the machine does not allow what the test
/// needs; the test counts as skipped then.
[[noreturn]] inline void skipForWantOfRights() {
    std::_Exit(77);
}

/// Sets a limit of the user namespace: "watches" or "instances".
inline void limitInotify(const std::string& what, int most) {
    std::ofstream file("/proc/sys/user/max_inotify_" + what);
    if (!(file << most << std::flush))
        skipForWantOfRights();
}

/// Runs `test` in a process with user and mount namespaces of its own. The name of the test suite
/// should end in DeathTest.
inline void expectSuccessInOwnNamespaces(const std::function<void()>& test) {
    const auto enterNamespaces = [] {
        const auto user = std::to_string(::geteuid());
        const auto group = std::to_string(::getegid());
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            skipForWantOfRights();
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
        std::ofstream("/proc/self/gid_map") << "0 " + group + " 1";
        limitInotify("watches", 100'000);
    };
    const auto runAndExit = [&] {
        enterNamespaces();
        test();
        const auto& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
        for (int i = 0; i < result.total_part_count(); ++i)
            std::fputs(result.GetTestPartResult(i).summary(), stderr);
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    };
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    int status = 0;
    EXPECT_EXIT(
        runAndExit(),
        [&](int code) {
            status = WIFEXITED(code) ? WEXITSTATUS(code) : 128 + WTERMSIG(code);
            return status == 0 || status == 77;
        },
        "");
    if (status == 77)
        GTEST_SKIP() << "SKIPPED: no user namespaces may be made here";
}

} // namespace quendo::test
