#include "tests/support/Process.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

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

} // namespace

ProcessResult runProcess(const std::vector<std::string>& command, const ProcessOptions& options) {
    // Files take whatever comes at once, so that nobody has to read while the process runs.
    const File output{checked(::memfd_create("output", MFD_CLOEXEC), "memfd_create")};
    const File errors{checked(::memfd_create("errors", MFD_CLOEXEC), "memfd_create")};
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
    posix_spawn_file_actions_adddup2(&actions, output.number, 1);
    posix_spawn_file_actions_adddup2(&actions, errors.number, 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    errno = posix_spawnp(&pid, "env", &actions, &attributes, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    checked(errno == 0 ? 0 : -1, "posix_spawnp");

    const File process{checked(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)), "pidfd_open")};
    pollfd ended{process.number, POLLIN, 0};
    ProcessResult result;
    result.timedOut = ::poll(&ended, 1, static_cast<int>(options.deadline.count())) == 0;
    if (result.timedOut)
        ::kill(-pid, SIGKILL);
    int status = 0;
    checked(::waitpid(pid, &status, 0), "waitpid");
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.output = contentOf(output);
    result.errors = contentOf(errors);
    return result;
}

std::string notRefused(const ProcessResult& result, int exitCode) {
    if (!result.timedOut && result.exitCode == exitCode && result.output.empty() &&
        result.errors.size() > 1 && result.errors.find('\n') == result.errors.size() - 1)
        return "";
    return (result.timedOut ? "did not end" : "exit " + std::to_string(result.exitCode)) +
           "; stderr: " + result.errors + "; stdout: " + result.output.substr(0, 500);
}

} // namespace quendo::test
