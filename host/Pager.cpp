#include "host/Pager.h"

#include "host/HostError.h"
#include "host/Interrupts.h"
#include "host/StandardStreams.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace quendo::host {
namespace {

constexpr int lookAtSignals = 100; // milliseconds

/// The file of a program in PATH. Relative folders are left out: they may be the working copy's.
std::optional<std::string> findInPath(const std::string& name) {
    const char* variable = std::getenv("PATH");
    std::string_view folders = variable != nullptr ? variable : "/usr/bin:/bin";
    while (!folders.empty()) {
        const auto end = std::min(folders.find(':'), folders.size());
        const auto folder = folders.substr(0, end);
        folders.remove_prefix(std::min(end + 1, folders.size()));
        auto file = std::string(folder) + "/" + name;
        if (folder.starts_with('/') && ::access(file.c_str(), X_OK) == 0)
            return file;
    }
    return std::nullopt;
}

std::string quotedForShell(const std::string& word) {
    std::string quoted = "'";
    for (const char c : word)
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    return quoted + "'";
}

/// This process's environment, with what makes the usual pagers quit when all fits on one screen.
std::vector<std::string> pagerEnvironment() {
    std::vector<std::string> variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        variables.emplace_back(*entry);
    if (std::getenv("LESS") == nullptr)
        variables.emplace_back("LESS=FRX");
    if (std::getenv("LV") == nullptr)
        variables.emplace_back("LV=-c");
    return variables;
}

} // namespace

std::optional<std::string> Pager::command() {
    const char* terminal = std::getenv("TERM");
    if (!isTerminal(STDOUT_FILENO) || terminal == nullptr || std::strcmp(terminal, "dumb") == 0)
        return std::nullopt;
    if (const char* chosen = std::getenv("PAGER")) {
        const std::string command = chosen;
        return command.empty() || command == "cat" ? std::nullopt : std::optional(command);
    }
    const auto less = findInPath("less");
    return less ? std::optional(quotedForShell(*less)) : std::nullopt;
}

Pager::Pager(const std::string& command) {
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0)
        throw HostError("cannot start the pager: " + std::generic_category().message(errno));
    auto variables = pagerEnvironment();
    std::vector<char*> environment;
    for (auto& variable : variables)
        environment.push_back(variable.data());
    environment.push_back(nullptr);
    std::string shell = "sh", option = "-c", text = command;
    char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};

    // This process ignores SIGPIPE and blocks the signals that Interrupts handles. The pager gets
    // the default.
    sigset_t all, none;
    ::sigfillset(&all);
    ::sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigdefault(&attributes, &all);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, pipe[0], STDIN_FILENO);
    const int error =
        ::posix_spawn(&m_process, "/bin/sh", &actions, &attributes, arguments, environment.data());
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    ::close(pipe[0]);
    m_input = pipe[1];
    if (error != 0) {
        ::close(m_input);
        throw HostError("cannot start the pager: " + std::generic_category().message(error));
    }
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    ::sigaction(SIGINT, &ignored, &m_interrupt);
    m_handle = static_cast<int>(::syscall(SYS_pidfd_open, m_process, 0));
    // While the user reads the first page the pipe stays full, and a signal may come.
    ::fcntl(m_input, F_SETFL, O_NONBLOCK);
}

Pager::~Pager() {
    finish();
}

bool Pager::write(std::string_view text) {
    while (!text.empty()) {
        const auto count = ::write(m_input, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd ready{m_input, POLLOUT, 0};
            ::poll(&ready, 1, lookAtSignals);
            endIfTerminated();
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

void Pager::finish() noexcept {
    if (m_process < 0)
        return;
    ::close(m_input);
    pollfd ended{m_handle, POLLIN, 0};
    // Without a handle there is only the wait for its end.
    while (m_handle >= 0 && ::poll(&ended, 1, lookAtSignals) <= 0)
        endIfTerminated();
    while (::waitpid(m_process, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (m_handle >= 0)
        ::close(m_handle);
    m_process = -1;
    ::sigaction(SIGINT, &m_interrupt, nullptr);
}

void Pager::endIfTerminated() const noexcept {
    if (Interrupts::received() != 0)
        ::kill(m_process, SIGTERM);
}

} // namespace quendo::host
