#pragma once

#include "quendo/git/FileDescriptor.h"

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class Cancellation;

/// What to start, and how.
struct ActingPlan {
    std::string executable;
    std::vector<std::string> arguments;     ///< without the program's own name
    std::vector<std::string> environment;   ///< whole, as NAME=VALUE
    int workingFolder = -1;                 ///< descriptor of an open folder
    std::string input = {};                 ///< for its standard input
    std::string message = {};               ///< to be read from its descriptor 3
    std::chrono::milliseconds stallLimit{}; ///< longest time without a sign of life
};

/// What the thread that waits does meanwhile.
struct WhileActing {
    /// About every 100 ms, with what came on standard error since the last time. Must not throw.
    std::function<void(std::string_view)> takeErrors = {};
    /// A descriptor to look at, and what to do when it can be read; the time that this takes does
    /// not count as a time without a sign of life. Must not throw.
    int served = -1;
    std::function<void()> serve = {};
};

/// How it ended.
struct ActingResult {
    int exitCode = 0;       ///< 128 + the number of the signal that ended it
    int signal = 0;         ///< the signal that ended it; 0 when it exited
    bool cancelled = false; ///< it was told to stop; it may have been done already
    bool stalled = false;   ///< it was told to stop because it gave no sign of life
    std::string output;     ///< the first of what it wrote to standard output
    std::string errors;     ///< the last of what it wrote to standard error
};

/// Runs a program that changes something, and waits for it.
///
/// It outlives this process and finishes: it holds its whole input from the start, and writes to
/// files in memory that stay there for it. It has a session of its own, so nothing that it starts
/// finds a terminal to ask at.
///
/// While it runs for longer than 100 ms, and while `serve` runs, the calling task waits outside its
/// executor (OutsideExecutor).
///
/// When the call is cancelled, it is told to stop (SIGTERM, on which git takes its lock files
/// away), and everything that it started with it; what has not ended a quarter of a second later
/// is killed. What it leaves running at a regular end is left alone.
///
/// @throws std::system_error when it cannot be started; exception::ToolError when it cannot be
///         ended
ActingResult runActing(const ActingPlan& plan, const Cancellation& cancellation,
                       const WhileActing& meanwhile);

} // namespace quendo::git
