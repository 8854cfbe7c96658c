#pragma once

#include "quendo/adapter/CredentialProvider.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/git/GitTool.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quendo::git {

/// Answers the credential questions of one operation's gits out of the host's CredentialProvider,
/// which is asked once for each place to log in to.
///
/// git is given a credential helper, behind those of the user's, that asks at a socket in a folder
/// which only this user may enter: nothing secret stands in an argument or in the environment.
/// What git has been told is kept until the operation ends. Threads: used by one, on which the
/// provider is called.
class CredentialServer {
public:
    /// @throws std::system_error when the socket cannot be made
    explicit CredentialServer(std::shared_ptr<CredentialProvider> provider);
    ~CredentialServer();
    CredentialServer(const CredentialServer&) = delete;
    CredentialServer& operator=(const CredentialServer&) = delete;

    /// Settings for a git that is to ask here.
    std::vector<ConfigOverride> settings() const;

    /// Can be read when a question waits.
    int descriptor() const noexcept { return m_socket.get(); }

    /// Answers one question. Nobody else than this user is answered.
    void serve() noexcept;

    /// Where credentials were asked for and not given, if so.
    const std::optional<std::string>& declined() const noexcept { return m_declined; }

    /// `text` without the passwords that were given out.
    std::string withoutPasswords(std::string text) const;

private:
    std::string answer(std::string_view question);

    const std::shared_ptr<CredentialProvider> m_provider;
    std::string m_folder;
    FileDescriptor m_socket;
    std::map<std::pair<std::string, std::string>, Credentials> m_given; ///< by URL and user
    std::optional<std::string> m_declined;
};

} // namespace quendo::git
