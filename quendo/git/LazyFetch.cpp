#include "quendo/git/LazyFetch.h"

#include "quendo/git/GitAdapter.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

namespace quendo::git {
namespace {

/// What `key` is set to when only the repository sets it; nothing for one that it may set.
std::optional<std::string> harmlessValue(std::string_view key) {
    if (key == "core.sshcommand") {
        // A setting comes before GIT_SSH, which names a program and no command.
        const char* program = std::getenv("GIT_SSH");
        return program == nullptr ? "ssh" : "exec \"$GIT_SSH\"";
    }
    if (key == "core.alternaterefscommand")
        return "true";
    if (key.starts_with("http.") && key.ends_with(".savecookies"))
        return "false";
    if (key.starts_with("http.") && key.ends_with(".cookiefile"))
        return "";
    return std::nullopt;
}

} // namespace

std::vector<std::string> LazyFetch::question() {
    return {"config", "-z", "--show-scope", "--get-regexp",
            "^(extensions\\.partialclone|remote\\..*\\.(promisor|uploadpack)|"
            "core\\.(sshcommand|gitproxy|alternaterefscommand)|credential\\.(.*\\.)?helper|"
            "http\\.(.*\\.)?(savecookies|cookiefile))$"};
}

std::shared_ptr<LazyFetch> LazyFetch::of(GitRunner& git,
                                         std::shared_ptr<CredentialProvider> provider) {
    constexpr int noneFound = 1;
    auto fetch = std::make_shared<LazyFetch>(git.read({.arguments = question()}, noneFound),
                                             std::move(provider));
    return fetch->isPartialClone() ? fetch : nullptr;
}

LazyFetch::LazyFetch(std::string_view configuration, std::shared_ptr<CredentialProvider> provider)
    // A housekeeping that a fetch starts would outlive it.
    : m_settings{{"gc.auto", "0"}, {"maintenance.auto", "false"}} {
    std::map<std::string, std::string> ofUser;
    std::vector<ConfigOverride> usersHelpers;
    std::set<std::string> namedByRepository;
    bool hasOwnHelper = false;
    // Records of two parts: scope NUL key LF value NUL; the LF is missing for a name alone.
    std::vector<std::string> parts;
    NulSplitter("config").feed(configuration,
                               [&](std::string_view part) { parts.emplace_back(part); });
    for (std::size_t i = 0; i + 1 < parts.size(); i += 2) {
        const auto& scope = parts[i];
        const auto keyEnd = std::min(parts[i + 1].find('\n'), parts[i + 1].size());
        const auto key = parts[i + 1].substr(0, keyEnd);
        const auto value = parts[i + 1].substr(std::min(keyEnd + 1, parts[i + 1].size()));
        const bool isUsers = scope == "system" || scope == "global";
        m_isPartialClone |=
            key == "extensions.partialclone" || (key.ends_with(".promisor") && value != "false");
        if (key.starts_with("credential.")) {
            if (isUsers)
                usersHelpers.push_back({key, value});
            hasOwnHelper |= !isUsers;
        } else if (isUsers) {
            ofUser[key] = value;
        } else if (value != "git-upload-pack") {
            namedByRepository.insert(key);
        }
    }
    for (const auto& key : namedByRepository)
        // The first one counts, so one that is set here would come too late.
        if (key.ends_with(".uploadpack") && !ofUser.contains(key)) {
            m_programOfServer = key;
        } else if (const auto harmless = harmlessValue(key)) {
            const auto own = ofUser.find(key);
            m_settings.push_back({key, own == ofUser.end() ? *harmless : own->second});
        }
    m_hasOwnProxy = namedByRepository.contains("core.gitproxy");
    if (hasOwnHelper) {
        // An empty one removes all before it.
        m_settings.push_back({"credential.helper", ""});
        m_settings.insert(m_settings.end(), usersHelpers.begin(), usersHelpers.end());
    }
    if (m_isPartialClone && provider) {
        m_credentials = std::make_unique<CredentialServer>(std::move(provider));
        const auto ask = m_credentials->settings();
        m_settings.insert(m_settings.end(), ask.begin(), ask.end());
    }
}

std::vector<std::string> LazyFetch::environment(const std::string& ceiling,
                                                std::vector<ConfigOverride> overrides,
                                                bool literalPathspecs) const {
    overrides.insert(overrides.end(), m_settings.begin(), m_settings.end());
    auto environment = GitTool::fetchingEnvironment(ceiling, overrides, literalPathspecs);
    // Without the transports that run it.
    if (!m_programOfServer.empty()) {
        std::erase_if(environment,
                      [](const auto& one) { return one.starts_with("GIT_ALLOW_PROTOCOL="); });
        environment.emplace_back("GIT_ALLOW_PROTOCOL=git:http:https");
    }
    if (m_hasOwnProxy && std::getenv("GIT_PROXY_COMMAND") == nullptr)
        environment.emplace_back("GIT_PROXY_COMMAND=");
    return environment;
}

ChildService LazyFetch::service() {
    if (!m_credentials)
        return {};
    return {m_credentials->descriptor(), [this] { m_credentials->serve(); }};
}

std::string LazyFetch::presentable(std::string errors) const {
    // What git says last is that it lacks the object; before that, why.
    constexpr std::string_view lastWords = "fatal: could not fetch ";
    if (const auto last = errors.rfind(lastWords);
        last != std::string::npos && errors.find("fatal: ") != last)
        errors.erase(last, errors.find('\n', last) - last);
    if (!m_programOfServer.empty() && errors.find("' not allowed") != std::string::npos)
        errors += "\nfatal: only the repository's own configuration sets " + m_programOfServer +
                  ", a program, which is not run; if you trust it, put it into your own "
                  "configuration with git config --global\n";
    if (m_credentials) {
        errors = m_credentials->withoutPasswords(std::move(errors));
        if (const auto& place = m_credentials->declined())
            errors += "\nfatal: no credentials were given for " + withoutSecrets(*place) +
                      ", which asks for them; try again and give them, or set up a credential "
                      "helper for Git\n";
    }
    return withoutSecretsInText(std::move(errors));
}

} // namespace quendo::git
