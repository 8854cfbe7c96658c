#include "host/HostError.h"
#include "host/Interrupts.h"
#include "host/LogSink.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "tests/support/Testing.h"

#include <csignal>
#include <iostream>
#include <semaphore>
#include <unistd.h>

namespace quendo::host {
namespace {

using namespace std::chrono_literals;

/// Sends it to the process, as a terminal does, and goes on when it has come.
void interrupt() {
    ::kill(::getpid(), SIGINT);
    while (Interrupts::received() == 0)
        std::this_thread::yield();
}

/// Ends at once, or by SIGALRM.
[[noreturn]] void interruptTwice() {
    Interrupts interrupts(std::make_shared<CMApplicationInteractor>());
    interrupt();
    ::alarm(30);
    for (::kill(::getpid(), SIGINT);;)
        ::pause();
}

/// Ends with 0 when the work was told to stop although it began to listen only after the signal,
/// and the session then counts as interrupted.
[[noreturn]] void interruptBeforeListening() {
    const auto interactor = std::make_shared<CMApplicationInteractor>();
    Interrupts interrupts(interactor);
    interrupt();
    std::counting_semaphore<> calls(0);
    const auto connection = interactor->getTerminator().connect([&] { calls.release(); });
    if (!calls.try_acquire_for(30s) || !calls.try_acquire_for(30s))
        std::_Exit(1);
    try {
        interrupts.endAtOnce();
    } catch (const Interrupted&) {
        std::_Exit(Interrupts::received() == SIGINT ? 0 : 3);
    }
    std::_Exit(2);
}

TEST(Interrupts, StopTheWorkFirstAndTheProcessThen) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto interactor = std::make_shared<CMApplicationInteractor>();
    EXPECT_EXIT(interruptBeforeListening(), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(interruptTwice(), testing::ExitedWithCode(130), "");
    EXPECT_EXIT(Interrupts(interactor).endAtOnce();
                ::raise(SIGTERM), testing::ExitedWithCode(143), "");
}

[[noreturn]] void logFrom(std::optional<platform::Severity> lowest) {
    setUpLog(lowest);
    QUENDO_LOG(Severity::Detail) << "fine";
    QUENDO_LOG(Severity::Notice) << "two\nlines";
    std::cerr << "end" << std::endl;
    std::_Exit(0);
}

TEST(LogSink, WritesWhatIsAskedForOneLineEach) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(logFrom(std::nullopt), testing::ExitedWithCode(0), "^end\n$");
    EXPECT_EXIT(logFrom(platform::Severity::Notice), testing::ExitedWithCode(0),
                "^notice [^ ]*ProcessWideTest: two\\\\nlines\nend\n$");
    EXPECT_EXIT(logFrom(platform::Severity::Detail), testing::ExitedWithCode(0),
                "^detail [^ ]*ProcessWideTest: fine\nnotice ");
}

} // namespace
} // namespace quendo::host
