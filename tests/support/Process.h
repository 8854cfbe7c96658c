#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace quendo::test {

struct ProcessResult {
    int exitCode = -1; ///< 128 + the signal for a process that a signal ended
    std::string output;
    std::string errors;
    bool timedOut = false; ///< it was killed, with its children, at the deadline
};

struct ProcessOptions {
    std::filesystem::path workingFolder;
    std::map<std::string, std::string> environment; ///< set beside what is inherited
    std::chrono::milliseconds deadline{60'000};
};

/// Runs a program, with nothing to read, and waits for it; not for what it leaves behind. The
/// first word is looked up in PATH; 127 is the exit code when it is not there.
ProcessResult runProcess(const std::vector<std::string>& command, const ProcessOptions& options);

/// Empty when the program refused as it must: this exit code, one line on stderr and nothing on
/// stdout; otherwise what it did instead.
std::string notRefused(const ProcessResult& result, int exitCode = 1);

} // namespace quendo::test
