#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quendo::git {

/// What a process and its children are doing, as the system tells it.
struct ProcessActivity {
    std::uint64_t processorTime = 0; ///< in clock ticks, of ended children too
    /// The process, or a git that it started, waits for a FIFO's other end to be opened.
    bool opensFifo = false;
};

/// Looks at `pid` and everything it started. A process that is gone adds nothing.
ProcessActivity lookAtProcess(pid_t pid);

/// Everything that `pid` started and that still runs, as deep as lookAtProcess() looks.
std::vector<pid_t> descendantsOf(pid_t pid);

/// The command lines of these, words apart by blanks, each cut off at 4 KiB; at most 32.
std::vector<std::string> commandLinesOf(const std::vector<pid_t>& processes);

/// Processor time in the unit of ProcessActivity.
std::uint64_t toClockTicks(std::chrono::milliseconds time);

} // namespace quendo::git
