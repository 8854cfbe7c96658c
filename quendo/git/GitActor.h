#pragma once

#include "quendo/git/ActingProcess.h"
#include "quendo/git/CredentialServer.h"
#include "quendo/git/GitTool.h"
#include "quendo/platform/OwnWrites.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class Cancellation;
class Repository;

/// One run of a git that changes something.
struct GitAction {
    std::vector<std::string> arguments;
    std::string input = {};   ///< for standard input
    std::string message = {}; ///< to be read from messageFile
    std::vector<ConfigOverride> settings = {};

    /// Where it finds `message`.
    static constexpr const char* messageFile = "/proc/self/fd/3";
};

/// Runs git for one call of the adapter that changes something, as the user would on the command
/// line. Threads: used by one, on which the credential provider is called.
class GitActor {
public:
    /// @param eachLine takes each line that git, a hook or a filter prints for people; must not
    ///                 throw
    /// @param provider may be null
    GitActor(GitTool& tool, const Repository& repository, const Cancellation& cancellation,
             std::function<void(std::string_view line)> eachLine,
             std::shared_ptr<CredentialProvider> provider);
    ~GitActor();

    const Repository& repository() const noexcept { return m_repository; }
    /// From now on nothing stops it: for what has to be set right after a cancellation.
    void ignoreCancellation();

    /// Runs git. While another git holds the index it waits, a bounded time; it never takes away a
    /// lock that another left. A git that had done its work when it was told to stop has done it.
    /// @return what git printed
    /// @throws exception::OperationFailedError with git's or a hook's words; ToolError when git
    ///         hangs or cannot be run; OperationCancelledError
    std::string run(const GitAction& action);

    /// Waits until no other git holds the index, or throws as run() does: for an operation that
    /// does something before it runs git.
    void waitForIndex() { waitForIndex(lockDeadline()); }

    /// What git prints for people, fit for a message: without passwords.
    std::string presentable(std::string text) const;

private:
    using Time = std::chrono::steady_clock::time_point;

    Time lockDeadline() const;
    void waitForIndex(Time deadline);
    void tell(std::string line) const;
    OwnWrites::Footprint footprintOf(const GitAction& action) const;
    ActingResult runOnce(const GitAction& action);
    [[noreturn]] void fail(std::string_view command, const ActingResult& result) const;

    GitTool& m_tool;
    const Repository& m_repository;
    const Cancellation* m_cancellation;
    std::unique_ptr<const Cancellation> m_never; ///< in its place, once it is ignored
    const std::function<void(std::string_view)> m_eachLine;
    const std::unique_ptr<CredentialServer> m_credentials; ///< null when nobody can be asked
};

/// The sentence for a lock file that another process holds: which, since when, and what to do.
std::string describeLock(const std::string& file);

} // namespace quendo::git
