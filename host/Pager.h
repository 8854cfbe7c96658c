#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace quendo::host {

/// The program that shows long output page by page on the user's terminal. It is the user's PAGER,
/// else `less` where that is installed; never one that a repository names. While it runs, Ctrl-C is
/// the pager's and this process ignores it.
class Pager {
public:
    /// The shell command to run, or nothing when output is to be written directly: standard output
    /// is no terminal or a dumb one, PAGER is empty or "cat", or there is no pager.
    static std::optional<std::string> command();

    /// Starts it. @throws HostError when it cannot be started
    explicit Pager(const std::string& command);

    /// As finish().
    ~Pager();
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;

    /// @return false when the pager reads no more: the user has left it
    bool write(std::string_view text);

    /// Waits until the user has left the pager. A request to terminate ends it.
    void finish() noexcept;

private:
    void endIfTerminated() const noexcept;

    struct sigaction m_interrupt {}; ///< what Ctrl-C did before
    pid_t m_process = -1;
    int m_handle = -1; ///< a pidfd
    int m_input = -1;  ///< what is written here, the pager reads
};

} // namespace quendo::host
