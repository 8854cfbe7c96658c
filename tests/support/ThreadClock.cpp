#include "tests/support/ThreadClock.h"

#include <cstdint>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace quendo::test {

constinit thread_local std::chrono::nanoseconds clockAhead{0};

} // namespace quendo::test

// Takes the place of the C library's, which the steady clock reads.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const auto result = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
    if (result == 0 && clock == CLOCK_MONOTONIC) {
        constexpr std::int64_t second = 1'000'000'000;
        const auto sum = time->tv_nsec + quendo::test::clockAhead.count();
        time->tv_sec += sum / second;
        time->tv_nsec = sum % second;
    }
    return result;
}
