#include "tests/support/Process.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace quendo::test {
namespace {

int checked(int result, const char* what) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

struct File {
    ~File() { ::close(number); }
    const int number;
};

std::string contentOf(const File& file) {
    std::string text(static_cast<std::size_t>(::lseek(file.number, 0, SEEK_END)), '\0');
    text.resize(static_cast<std::size_t>(::pread(file.number, text.data(), text.size(), 0)));
    return text;
}

/// Starts it in a process group of its own.
pid_t start(const std::vector<std::string>& command, const ProcessOptions& options, int output,
            int errors) {
    std::vector<std::string> words{"env"};
    if (!options.workingFolder.empty())
        words.push_back("--chdir=" + options.workingFolder.native());
    for (const auto& [name, value] : options.environment)
        words.push_back(name + "=" + value);
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char*> pointers;
    for (auto& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, 1);
    posix_spawn_file_actions_adddup2(&actions, errors, 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    std::vector<char*> inherited;
    for (const auto& variable : options.inherited)
        inherited.push_back(const_cast<char*>(variable.c_str()));
    inherited.push_back(nullptr);
    pid_t pid = -1;
    errno = posix_spawnp(&pid, "env", &actions, &attributes, pointers.data(),
                         options.inherited.empty() ? environ : inherited.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    checked(errno == 0 ? 0 : -1, "posix_spawnp");
    return pid;
}

/// Waits for the end of a child; kills it, with its children, at the deadline.
/// @return whether it had to
bool end(pid_t pid, std::chrono::milliseconds deadline, int& exitCode) {
    const File process{checked(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)), "pidfd_open")};
    pollfd ended{process.number, POLLIN, 0};
    const bool timedOut = ::poll(&ended, 1, static_cast<int>(deadline.count())) == 0;
    if (timedOut)
        ::kill(-pid, SIGKILL);
    int status = 0;
    checked(::waitpid(pid, &status, 0), "waitpid");
    exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return timedOut;
}

} // namespace

ProcessResult runProcess(const std::vector<std::string>& command, const ProcessOptions& options) {
    // Files take whatever comes at once, so that nobody has to read while the process runs.
    const File output{checked(::memfd_create("output", MFD_CLOEXEC), "memfd_create")};
    const File errors{checked(::memfd_create("errors", MFD_CLOEXEC), "memfd_create")};
    const auto pid = start(command, options, output.number, errors.number);
    ProcessResult result;
    result.timedOut = end(pid, options.deadline, result.exitCode);
    result.output = contentOf(output);
    result.errors = contentOf(errors);
    return result;
}

RunningProcess::RunningProcess(const std::vector<std::string>& command,
                               const ProcessOptions& options)
    : m_deadline(options.deadline) {
    int output[2], errors[2];
    checked(::pipe2(output, O_CLOEXEC), "pipe2");
    checked(::pipe2(errors, O_CLOEXEC), "pipe2");
    const File theirOutput{output[1]}, theirErrors{errors[1]};
    m_streams[0].file = output[0];
    m_streams[1].file = errors[0];
    m_id = start(command, options, output[1], errors[1]);
}

RunningProcess::~RunningProcess() {
    int exitCode = 0;
    if (m_id >= 0)
        end(m_id, std::chrono::milliseconds(0), exitCode);
    for (const auto& stream : m_streams)
        ::close(stream.file);
}

bool RunningProcess::await(int milliseconds) {
    pollfd files[] = {{m_streams[0].file, POLLIN, 0}, {m_streams[1].file, POLLIN, 0}};
    if (checked(::poll(files, 2, milliseconds), "poll") == 0)
        return false;
    for (std::size_t i = 0; i < 2; ++i) {
        char bytes[4096];
        if (files[i].revents == 0)
            continue;
        if (const auto count = ::read(files[i].fd, bytes, sizeof bytes); count > 0) {
            m_streams[i].text.append(bytes, static_cast<std::size_t>(count));
        } else {
            ::close(std::exchange(m_streams[i].file, -1));
            if (!m_streams[i].text.empty() && m_streams[i].text.back() != '\n')
                throw std::runtime_error("half a line: " + m_streams[i].text);
        }
    }
    return true;
}

bool RunningProcess::hasMore() {
    return m_streams[0].text.find('\n') != std::string::npos || await(0);
}

std::optional<RunningProcess::Line> RunningProcess::next() {
    for (;;) {
        // What went wrong is told behind what was printed before it.
        for (auto& stream : m_streams) {
            if (const auto end = stream.text.find('\n'); end != std::string::npos) {
                Line line{&stream == &m_streams[1], stream.text.substr(0, end)};
                stream.text.erase(0, end + 1);
                return line;
            }
        }
        if (m_streams[0].file < 0 && m_streams[1].file < 0)
            return std::nullopt;
        if (!await(static_cast<int>(m_deadline.count())))
            throw std::runtime_error("no line came");
    }
}

void RunningProcess::closeOutput() {
    ::close(std::exchange(m_streams[0].file, -1));
}

int RunningProcess::exitCode() {
    int exitCode = -1;
    if (end(std::exchange(m_id, -1), m_deadline, exitCode))
        throw std::runtime_error("it did not end");
    return exitCode;
}

std::string notRefused(const ProcessResult& result, int exitCode) {
    if (!result.timedOut && result.exitCode == exitCode && result.output.empty() &&
        result.errors.size() > 1 && result.errors.find('\n') == result.errors.size() - 1)
        return "";
    return (result.timedOut ? "did not end" : "exit " + std::to_string(result.exitCode)) +
           "; stderr: " + result.errors + "; stdout: " + result.output.substr(0, 500);
}

} // namespace quendo::test
