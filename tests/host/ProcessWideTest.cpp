#include "host/HostError.h"
#include "host/Interrupts.h"
#include "host/LogSink.h"
#include "host/Progress.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "tests/support/Testing.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
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
    Interrupts interrupts({std::make_shared<CMApplicationInteractor>()});
    interrupt();
    ::alarm(30);
    for (::kill(::getpid(), SIGINT);;)
        ::pause();
}

/// Ends with 0 when the work was told to stop although it began to listen only after the signal,
/// and the session then counts as interrupted.
[[noreturn]] void interruptBeforeListening() {
    const auto interactor = std::make_shared<CMApplicationInteractor>();
    Interrupts interrupts({std::make_shared<CMApplicationInteractor>(), interactor});
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
    EXPECT_EXIT(Interrupts({interactor}).endAtOnce();
                ::raise(SIGTERM), testing::ExitedWithCode(143), "");
}

[[noreturn]] void logFrom(std::optional<platform::Severity> lowest) {
    setUpLog(lowest);
    QUENDO_LOG(Severity::Detail) << "fine";
    QUENDO_LOG(Severity::Notice) << "two\nlines";
    { QUENDO_TRACE_SCOPE(); }
    std::cerr << "end" << std::endl;
    std::_Exit(0);
}

TEST(LogSink, WritesWhatIsAskedForOneLineEach) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(logFrom(std::nullopt), testing::ExitedWithCode(0), "^end\n$");
    EXPECT_EXIT(logFrom(platform::Severity::Notice), testing::ExitedWithCode(0),
                "^notice [^ ]*ProcessWideTest: two\\\\nlines\nend\n$");
    EXPECT_EXIT(
        logFrom(platform::Severity::Detail), testing::ExitedWithCode(0),
        "^detail [^ ]*ProcessWideTest: fine\nnotice .*\ndetail [^ ]*: enter .*logFrom.*leave ");
}

/// Ends with 0 when the terminal was shown that the work goes on although nobody knows how far it
/// is, and a note beside it on a line of its own.
[[noreturn]] void watchProgress() {
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (::grantpt(terminal) != 0 || ::unlockpt(terminal) != 0 ||
        ::dup2(::open(::ptsname(terminal), O_RDWR | O_NOCTTY), STDERR_FILENO) < 0)
        std::_Exit(1);
    ::setenv("TERM", "xterm", 1);
    ::alarm(30);
    const auto interactor = std::make_shared<CMApplicationInteractor>();
    Progress progress({interactor});
    interactor->getProgressIndicator().report(u"Reading", -1);
    std::string shown;
    const auto await = [&](std::string_view text) {
        for (char c = 0; shown.find(text) == shown.npos && ::read(terminal, &c, 1) == 1;)
            shown += c;
    };
    await("Reading, 1 s");
    progress.note("listen");
    await("Reading, 2 s");
    std::_Exit(shown.find("\r\x1b[Kquendo: listen\r\n") == shown.npos ||
                       shown.find('%') != shown.npos
                   ? 2
                   : 0);
}

TEST(Progress, MovesWithoutAKnownFraction) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(watchProgress(), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace quendo::host
