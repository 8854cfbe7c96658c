#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
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
    /// What is inherited, as NAME=VALUE, in place of this process's own; when not empty. For
    /// threads beside one that changes that.
    std::vector<std::string> inherited = {};
};

/// Runs a program, with nothing to read, and waits for it; not for what it leaves behind. The
/// first word is looked up in PATH; 127 is the exit code when it is not there.
ProcessResult runProcess(const std::vector<std::string>& command, const ProcessOptions& options);

/// A program that runs beside the test, with nothing to read, until it ends or the object does.
class RunningProcess {
public:
    RunningProcess(const std::vector<std::string>& command, const ProcessOptions& options);
    ~RunningProcess();
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

    struct Line {
        bool isError; ///< from standard error
        std::string text;
    };

    /// The next line; empty when both streams have ended. Throws when none comes before the
    /// deadline, and for output that ends within a line.
    std::optional<Line> next();
    /// Whether next() need not wait, as far as can be told.
    bool hasMore();

    pid_t id() const { return m_id; }
    /// Leaves it without a reader of its standard output.
    void closeOutput();
    /// Waits for its end. Throws when it has not ended at the deadline.
    int exitCode();

private:
    struct Stream {
        int file = -1;
        std::string text;
    };
    bool await(int milliseconds);

    const std::chrono::milliseconds m_deadline;
    Stream m_streams[2];
    pid_t m_id = -1;
};

/// Empty when the program refused as it must: this exit code, one line on stderr and nothing on
/// stdout; otherwise what it did instead.
std::string notRefused(const ProcessResult& result, int exitCode = 1);

} // namespace quendo::test
