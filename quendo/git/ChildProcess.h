#pragma once

#include "quendo/git/ChildLaunch.h"
#include "quendo/git/FileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class Cancellation;

/// What to start, and how.
struct ChildPlan {
    std::string executable;
    std::vector<std::string> arguments = {};   ///< without the program's own name
    std::vector<std::string> environment = {}; ///< whole, as NAME=VALUE
    int workingFolder = -1;                    ///< descriptor of an open folder
    std::string input = {};                    ///< for its standard input
    int outputFile = -1;                       ///< standard output goes there, if set
    std::uint64_t memoryLimit = 0;             ///< bytes of private memory (RLIMIT_DATA); 0: none
    /// Processor time that it and all that it starts may use together; 0: as much as they like.
    /// Each of them has a bound of its own somewhat above, for what cannot be watched.
    std::chrono::milliseconds processorLimit{0};
    bool keepMetadata = false;           ///< it cannot set a file's times or add objects
    std::size_t errorsKept = 64U << 10U; ///< bytes of standard error in the result
    /// It asks a server, and writes what it gets: it has no terminal to ask at, and when it is to
    /// end it has a moment to clean up.
    bool asksServer = false;
};

/// What the thread that waits for children does for them meanwhile.
struct ChildService {
    int descriptor = -1;              ///< to be looked at
    std::function<void()> serve = {}; ///< when it can be read; must not throw
};

/// How a child ended.
struct ChildResult {
    int exitCode = 0;   ///< 128 + the number of the signal that ended it
    int signal = 0;     ///< the signal that ended it; 0 when it exited
    std::string errors; ///< what it wrote to standard error, as much of it as was to be kept
    std::chrono::microseconds processorTime{0}; ///< used by it and the children it waited for
};

/// Thrown when a child neither prints nor computes for longer than it is allowed to, or waits for
/// a FIFO to be opened at the other end. It and its children have been ended.
struct ChildStalled {
    bool onFifo;
    std::vector<std::string> commands = {}; ///< command lines of what it had started
};

/// Thrown when a child and what it started have used more of the processor than they may. All
/// children have been ended.
struct ChildOverBound {
    std::size_t child;                 ///< which of those that were waited for
    std::vector<std::string> commands; ///< command lines of what it had started
};

/// A program that only reads, run beside this thread: in a process group of its own, ended with
/// its children when this object goes, when the call is cancelled, and when this process dies.
///
/// It gets default signal handling, no descriptors but the three standard ones, and /dev/null as
/// input unless there is some. Threads: used by one.
class ChildProcess {
public:
    /// Starts it.
    /// @param consume takes what it prints, in pieces; what it throws ends the child.
    /// @throws std::system_error when it cannot be started.
    ChildProcess(const ChildPlan& plan, std::function<void(std::string_view)> consume);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Waits until all of `children` have ended and everything they printed was consumed.
    /// `eachRound` runs about every 100 ms meanwhile.
    /// @throws ChildStalled, ChildOverBound, exception::OperationCancelledError, or what a consumer
    ///         threw: all of `children` have been ended then.
    static void waitForAll(std::span<ChildProcess* const> children,
                           const Cancellation& cancellation, std::chrono::milliseconds stallLimit,
                           const std::function<void()>& eachRound = {},
                           const ChildService& service = {});

    /// After waitForAll.
    const ChildResult& result() const noexcept { return m_result; }

private:
    bool isFinished() const noexcept { return !m_output && !m_errors && m_ended; }
    void handleOutput();
    void handleErrors();
    void handleInput();
    void sweepAndReap();
    void end() noexcept;

    std::function<void(std::string_view)> m_consume;
    std::string m_pendingInput;
    std::size_t m_written = 0;
    StartedChild m_child;
    FileDescriptor m_input;
    FileDescriptor m_output;
    FileDescriptor m_errors;
    bool m_ended = false;
    bool m_heard = false; ///< it printed something since the last look
    const std::size_t m_errorsKept;
    const bool m_asksServer;
    const std::uint64_t m_processorLimit; ///< in clock ticks; 0: none
    ChildResult m_result;
};

} // namespace quendo::git
