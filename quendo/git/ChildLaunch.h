#pragma once

#include "quendo/git/FileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quendo::git {

/// What becomes of a child when this process dies.
enum class ChildLifetime {
    EndsWithParent, ///< it is killed; it runs in a process group of its own
    OutlivesParent, ///< it goes on; it runs in a session of its own, without a terminal
};

/// A program to start, and what it gets. It has default signal handling and no descriptors but
/// those named here.
struct ChildLaunch {
    std::string executable;
    std::vector<std::string> arguments;   ///< without the program's own name
    std::vector<std::string> environment; ///< whole, as NAME=VALUE
    int workingFolder = -1;               ///< descriptor of an open folder
    int input = -1;
    int output = -1;
    int errors = -1;
    int extra = -1;                         ///< becomes its descriptor 3, if set
    std::uint64_t memoryLimit = 0;          ///< bytes of private memory (RLIMIT_DATA); 0: none
    std::chrono::seconds processorLimit{0}; ///< of each process on its own (RLIMIT_CPU); 0: none
    bool keepMetadata = false;              ///< it cannot set a file's times or add objects
    ChildLifetime lifetime = ChildLifetime::EndsWithParent;
    bool ownSession = false; ///< without a terminal, whatever its lifetime
};

struct StartedChild {
    pid_t id = -1;         ///< also that of its process group
    FileDescriptor handle; ///< a pidfd
};

/// Starts a program. None of the descriptors may be a standard one (see aboveStandard()).
/// @throws std::system_error when it cannot be started
StartedChild startChild(const ChildLaunch& launch);

/// Waits until the child has ended, at most this long.
bool waitForEnd(const StartedChild& child, std::chrono::milliseconds limit);

/// How a child ended.
struct ExitStatus {
    int code = 0;   ///< 128 + signal when a signal ended it, as a shell has it
    int signal = 0; ///< the signal that ended it; 0 when it exited
    /// What it used of the processor, with the children that it waited for.
    std::chrono::microseconds processorTime{0};
};

/// Reaps a child that has ended.
/// @throws exception::ToolError when another part of the process has reaped it
ExitStatus reap(const StartedChild& child);

/// `descriptor`, or a copy in its place when it has a standard stream's number: a host may run
/// without standard streams, and a child's are put on these numbers.
FileDescriptor aboveStandard(int descriptor);

} // namespace quendo::git
