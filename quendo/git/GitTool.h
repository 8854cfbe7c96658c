#pragma once

#include "quendo/git/GitAdapterFactory.h"

#include <compare>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace quendo::git {

/// A setting for one run of git, above those of every configuration file.
struct ConfigOverride {
    std::string key;
    std::string value;

    friend bool operator==(const ConfigOverride&, const ConfigOverride&) = default;
    friend auto operator<=>(const ConfigOverride&, const ConfigOverride&) = default;
};

/// The user's git: where it is, whether it is new enough, and in which environment it runs.
/// Any thread; own synchronisation.
class GitTool {
public:
    explicit GitTool(GitOptions options);

    const GitOptions& options() const noexcept { return m_options; }

    /// The executable's absolute path. Asks it for its version when it is new here or has changed.
    /// @throws exception::ToolError when there is none, or it is too old, hangs or is not git.
    std::string executable();

    /// The environment for a git that only reads: what this process has, without the GIT_*
    /// variables of whoever started it (those that say where the user's configuration lies
    /// excepted), with everything off that would write, prompt, fetch or run something.
    /// @param ceiling git looks for no repository above this folder
    /// @param overrides settings beside those that every reading git gets
    static std::vector<std::string> readingEnvironment(const std::string& ceiling,
                                                       const std::vector<ConfigOverride>& overrides,
                                                       bool literalPathspecs);

    /// The environment for a git that only reads, because the user asked for what it reads, and may
    /// fetch what a partial clone lacks of it: the servers are reached as on the user's command
    /// line, over the transports that run no program of the remote's choice. What else the
    /// repository's configuration may name has to be put aside by `overrides` (LazyFetch).
    static std::vector<std::string>
    fetchingEnvironment(const std::string& ceiling, const std::vector<ConfigOverride>& overrides,
                        bool literalPathspecs);

    /// The environment for a git that changes something because the user asked for it: as on the
    /// user's command line, hooks, filters, signing and credential helpers included, but that
    /// nothing asks at a terminal or opens an editor, and that git's words are those that this
    /// library reads. Variables that say where a repository lies are not passed on.
    static std::vector<std::string> actingEnvironment(const std::string& ceiling,
                                                      const std::vector<ConfigOverride>& overrides);

private:
    struct Identity {
        std::string path;
        dev_t device = 0;
        ino_t file = 0;
        std::pair<long long, long> changed;
        friend bool operator==(const Identity&, const Identity&) = default;
    };

    Identity find() const;
    void checkVersion(const std::string& path) const;

    const GitOptions m_options;
    std::mutex m_lock;
    Identity m_checked; ///< guarded by m_lock
};

} // namespace quendo::git
