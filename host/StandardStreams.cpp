#include "host/StandardStreams.h"

#include "host/HostError.h"
#include "host/Interrupts.h"
#include "host/VisibleText.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <system_error>
#include <unistd.h>

namespace quendo::host {
namespace {

bool ignoredBrokenPipes = false; ///< by whoever started the program
Colours chosenColours = Colours::Auto;

/// @return 0, or the error number.
int writeAll(int stream, std::string_view text) noexcept {
    while (!text.empty()) {
        const auto count = ::write(stream, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            // Whoever shares the stream made it non-blocking.
            pollfd file{stream, POLLOUT, 0};
            ::poll(&file, 1, -1);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

} // namespace

void prepareStandardStreams() {
    ignoredBrokenPipes = ::signal(SIGPIPE, SIG_IGN) == SIG_IGN;
    ::signal(SIGCHLD, SIG_DFL); // ignored by whoever started us, it would eat git's exit codes
    for (int stream = 0; stream <= 2; ++stream) {
        if (::fcntl(stream, F_GETFD) >= 0 || errno != EBADF)
            continue;
        // Output that is closed stays an error: this stand-in cannot be written to.
        const int stand = ::open("/dev/null", stream == 2 ? O_WRONLY : O_RDONLY);
        if (stand >= 0 && stand != stream) {
            ::dup2(stand, stream);
            ::close(stand);
        }
    }
}

void endByBrokenPipe() {
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGPIPE);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    ::raise(SIGPIPE);
    ::_exit(128 + SIGPIPE);
}

void setColours(Colours colours) noexcept {
    chosenColours = colours;
}

bool isTerminal(int stream) noexcept {
    return ::isatty(stream) == 1;
}

bool wantsColours() {
    if (chosenColours != Colours::Auto)
        return chosenColours == Colours::Always;
    const char* refused = std::getenv("NO_COLOR");
    const char* kind = std::getenv("TERM");
    return isTerminal(STDOUT_FILENO) && (refused == nullptr || *refused == '\0') &&
           kind != nullptr && std::string_view(kind) != "dumb";
}

void writeOutput(std::string_view text) {
    constexpr int lookAtSignals = 100; // milliseconds
    while (!text.empty()) {
        pollfd file{STDOUT_FILENO, POLLOUT, 0};
        while (::poll(&file, 1, lookAtSignals) == 0)
            if (Interrupts::received() != 0)
                throw Interrupted();
        // A pipe that is ready takes this much without waiting.
        const auto piece = text.substr(0, PIPE_BUF);
        text.remove_prefix(piece.size());
        const int error = writeAll(STDOUT_FILENO, piece);
        if (error == EPIPE)
            refuseClosedOutput();
        if (error != 0)
            throw HostError("cannot write the output: " + std::generic_category().message(error));
    }
}

void refuseClosedOutput() {
    if (ignoredBrokenPipes)
        throw HostError("cannot write the output: " + std::generic_category().message(EPIPE));
    throw OutputClosed();
}

void writeError(std::string_view message) noexcept {
    try {
        while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
            message.remove_suffix(1);
        writeAll(STDERR_FILENO, "quendo: " + visibleText(message) + "\n");
    } catch (...) {
        writeAll(STDERR_FILENO, "quendo: out of memory\n");
    }
}

} // namespace quendo::host
