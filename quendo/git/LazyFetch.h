#pragma once

#include "quendo/git/ChildProcess.h"
#include "quendo/git/CredentialServer.h"
#include "quendo/git/GitTool.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class GitRunner;

/// How a git that reads may fetch what a partial clone lacks, once the user has asked for something
/// that needs it.
///
/// The server is reached as on the user's command line, and credentials are asked for as by a git
/// that changes something. But a repository that came from somebody else still chooses no program:
/// the commands for ssh, a proxy, credentials and the server's side that only its own configuration
/// names are put aside, and only plain transports are allowed. Threads: used by one, on which the
/// provider is called.
class LazyFetch {
public:
    /// @param provider may be null
    /// @return null unless the repository is a partial clone
    static std::shared_ptr<LazyFetch> of(GitRunner& git,
                                         std::shared_ptr<CredentialProvider> provider);

    /// @param configuration what `git config` printed for question()
    LazyFetch(std::string_view configuration, std::shared_ptr<CredentialProvider> provider);

    bool isPartialClone() const noexcept { return m_isPartialClone; }

    /// For a run of git; as GitTool::fetchingEnvironment().
    std::vector<std::string> environment(const std::string& ceiling,
                                         std::vector<ConfigOverride> overrides,
                                         bool literalPathspecs) const;

    /// Answers git's questions for credentials.
    ChildService service();

    /// What git printed for people, without passwords and with the reason why there were none.
    std::string presentable(std::string errors) const;

    /// The question whose answer the constructor takes.
    static std::vector<std::string> question();

private:
    bool m_isPartialClone = false;
    bool m_hasOwnProxy = false;    ///< core.gitProxy of the repository
    std::string m_programOfServer; ///< the repository's remote.<name>.uploadpack, if there is one
    std::vector<ConfigOverride> m_settings;
    std::unique_ptr<CredentialServer> m_credentials; ///< null when nobody can be asked
};

} // namespace quendo::git
