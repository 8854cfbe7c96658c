#include "quendo/git/ChildProcess.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/git/Cancellation.h"
#include "tests/support/Testing.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::git {
namespace {

using namespace std::chrono_literals;

class ChildProcessTest : public testing::Test {
protected:
    /// A child's result; its output is kept in `output`.
    ChildResult shell(const std::string& script) {
        output.clear();
        plan.arguments = {"-c", script};
        ChildProcess child(plan, consumer);
        ChildProcess* const children[] = {&child};
        ChildProcess::waitForAll(children, cancellation, stallLimit);
        return child.result();
    }

    test::TemporaryFolder folder;
    FileDescriptor opened{::open(folder.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    CMApplicationInteractor interactor;
    Cancellation cancellation{&interactor};
    ChildPlan plan{.executable = "/bin/sh",
                   .arguments = {},
                   .environment = {"PATH=/usr/bin:/bin"},
                   .workingFolder = opened.get()};
    std::string output;
    std::function<void(std::string_view)> consumer = [this](auto text) { output += text; };
    std::chrono::milliseconds stallLimit = 20s;
};

TEST_F(ChildProcessTest, GivesOutputErrorsAndExitCode) {
    plan.input = "in\0put";
    const auto result = shell("pwd; cat; echo oops >&2; exit 3");
    EXPECT_EQ(output, folder.path().native() + "\nin");
    EXPECT_EQ(result.errors, "oops\n");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(shell("kill -TERM $$").exitCode, 128 + SIGTERM);

    // More than a pipe holds, both ways at once; and a child that does not want its input.
    const std::string large(1 << 20, 'x');
    plan.input = large;
    EXPECT_EQ(shell("cat").exitCode, 0);
    EXPECT_EQ(output, large);
    EXPECT_EQ(shell("exit 4").exitCode, 4);
    plan.executable = "/nowhere/git";
    try {
        EXPECT_EQ(shell("").exitCode, 127); // where vfork is fork, as under a sanitizer
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
    }
}

TEST_F(ChildProcessTest, InheritsNothingButWhatItIsGiven) {
    const FileDescriptor leaked(::open("/dev/null", O_RDONLY)); // a host forgot O_CLOEXEC
    const int high = ::fcntl(leaked.get(), F_DUPFD, 100);
    ::signal(SIGUSR1, SIG_IGN);
    shell("ls /proc/$$/fd | grep -c '^100$'; grep SigIgn /proc/$$/status");
    ::signal(SIGUSR1, SIG_DFL);
    ::close(high);
    EXPECT_EQ(output, "0\nSigIgn:\t0000000000000000\n");
}

TEST_F(ChildProcessTest, NoticesHangsOfEveryKind) {
    const auto stall = [&](const std::string& script, std::chrono::milliseconds limit) {
        stallLimit = limit;
        try {
            shell(script);
        } catch (const ChildStalled& stalled) {
            return std::string(stalled.onFifo ? "fifo" : "hang");
        }
        return std::string("ended");
    };
    EXPECT_EQ(stall("exec sleep 600", 300ms), "hang");
    // One that computes is not hanging, however long it prints nothing.
    EXPECT_EQ(stall("i=0; while [ $i -lt 1500000 ]; do i=$((i+1)); done", 300ms), "ended");
    ASSERT_EQ(::mkfifo((folder.path() / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(stall("exec cat fifo", 60s), "fifo");
    EXPECT_EQ(stall("ln -s $(command -v cat) git; ./git fifo; true", 60s), "fifo");
    // Somebody else's FIFO may be served later.
    EXPECT_EQ(stall("cat fifo; true", 300ms), "hang");
    // What the child leaves behind does not keep its pipes open.
    EXPECT_EQ(stall("sleep 600 & setsid sleep 3 & exit 0", 60s), "ended");
}

} // namespace
} // namespace quendo::git
