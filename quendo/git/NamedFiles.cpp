#include "quendo/git/NamedFiles.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/FormatConfig.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SmallFile.h"
#include "quendo/platform/Path.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>

// Problem: git opens whatever its configuration names. It waits for ever on a FIFO, reads a device
// until its memory or the processor time that it may use ends, and reads a file of 100 GB whole; a
// few configuration files that include each other several times each make it read a file a billion
// times. Opening a device may even do something.
//
// So the configuration is read here first, as git would read it, but that conditions of includes
// are not decided:
//
// 1. The files that git reads in any case, and those that they include without a condition, must be
//    regular and small. They cannot be replaced for one run of git, so an unfit one is an error
//    that names it. How often they are read is bounded too.
// 2. What core.excludesFile and core.attributesFile name can be replaced for one run. A file that
//    is unfit is returned, and the caller asks git whether it is the one that counts (GitRunner).
//
// As all of the configuration has been read then, it also tells whether git would answer otherwise
// than last time. Conditions on branches and remotes are not looked at; where there are any, that
// is left open.
//
// What is not guaranteed: a file that is replaced between this look and git's is opened by git.
// Then, and for includes with a condition, git's bounds serve (GitOptions): it is ended, and the
// error names the configuration.

namespace quendo::git {
namespace {

constexpr std::size_t configLimit = 16 * 1024 * 1024;
constexpr std::uint64_t mostRead = 64 * 1024 * 1024; // all configuration files together
constexpr int mostFiles = 1'000;
constexpr int deepestInclude = 10; // beyond, git refuses
constexpr std::size_t mostCompared = 256 * 1024;
constexpr off_t rulesLimit = 100 * 1024 * 1024;

constexpr std::array<const char*, 2> settings = {"core.excludesfile", "core.attributesfile"};

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string userFolder() {
    const auto own = variable("XDG_CONFIG_HOME");
    return (own.empty() ? variable("HOME") + "/.config" : own) + "/git";
}

/// What git makes of a path in a file of `folder`; nothing for one that only git can find.
std::optional<std::string> expanded(const std::string& path, const std::string& folder) {
    if (path.starts_with("~/"))
        return variable("HOME") + path.substr(1);
    if (path.empty() || path.starts_with('~') || path.starts_with("%(") || path.starts_with(':'))
        return std::nullopt;
    return path.starts_with('/') ? path : folder + "/" + path;
}

class ConfigurationReader {
public:
    explicit ConfigurationReader(const Repository& repository) : m_repository(repository) {}

    void read(const std::string& file, bool isOfUser, int depth = 0) {
        if (const auto why = whyUnfit(file))
            fail(isOfUser,
                 shown(file) + " " + *why + ", and Git would read it as configuration; replace it");
        struct stat status;
        // What cannot be read is for git to judge: it passes over some of these files.
        if (::stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
            return note(file, errno == ENOENT ? std::optional("") : std::nullopt);
        const auto text = readSmallFile(file, configLimit);
        note(file, text);
        if (++m_files > mostFiles || (m_bytes += text ? text->size() : 0) > mostRead ||
            (!text && status.st_size > static_cast<off_t>(configLimit)))
            fail(isOfUser,
                 "the configuration of " + m_repository.rootPath().toUtf8() +
                     " is too large, or includes too many files, the last of them " + shown(file) +
                     "; look at its include.path settings with git config --list --show-origin");
        if (!text)
            return;
        const auto folder = file.substr(0, file.rfind('/'));
        std::vector<std::string> included;
        const auto parsed =
            FormatConfig::parse(*text, [&](const std::string& section, const std::string& name,
                                           const std::string& value) {
                const bool isCondition = section.starts_with("includeif ");
                if (!(isCondition || section == "include") || name != "path")
                    return take(section + "." + name, value);
                const auto path = expanded(value, folder);
                m_isWhole &= path && (!isCondition || section.starts_with("includeif \"gitdir"));
                if (path && isCondition)
                    readPerhaps(*path);
                else if (path)
                    included.push_back(*path);
            });
        m_isWhole &= parsed.isRegular && (included.empty() || depth < deepestInclude);
        if (depth < deepestInclude)
            for (const auto& one : included)
                read(one, isOfUser && !one.starts_with(m_repository.commonDir()), depth + 1);
    }

    void takeDefaults() {
        for (const auto* setting : settings)
            take(setting, defaultFileOf(setting));
    }

    NamedFiles takeResult() {
        NamedFiles result{.unfit = std::move(m_unfit), .configuration = {}};
        // Conditions compare the place of the metadata.
        note(m_repository.gitDir(), "");
        if (m_isWhole)
            result.configuration = std::move(m_read);
        return result;
    }

private:
    static std::string shown(const std::string& file) { return Path::fromNative(file).toUtf8(); }

    [[noreturn]] static void fail(bool isOfUser, const std::string& message) {
        if (isOfUser)
            throw exception::ToolError(message);
        throw exception::DamagedRepositoryError(message);
    }

    void take(const std::string& setting, const std::string& value) {
        if (std::ranges::find(settings, setting) == settings.end())
            return;
        if (const auto file = expanded(value, m_repository.root()))
            if (auto why = whyUnfit(*file))
                m_unfit.push_back({setting, *file, std::move(*why)});
    }

    /// One that git includes under a condition, without what that includes in turn.
    void readPerhaps(const std::string& file) {
        struct stat status;
        if (::stat(file.c_str(), &status) != 0 && errno == ENOENT)
            return note(file, "");
        if (++m_files > mostFiles || whyUnfit(file))
            return note(file, std::nullopt);
        const auto text = readSmallFile(file, configLimit);
        note(file, text);
        if (!text || (m_bytes += text->size()) > mostRead)
            return;
        const auto parsed =
            FormatConfig::parse(*text, [&](const std::string& section, const std::string& name,
                                           const std::string& value) {
                m_isWhole &= !section.starts_with("include");
                take(section + "." + name, value);
            });
        m_isWhole &= parsed.isRegular;
    }

    /// @param text nothing when it cannot be read as git reads it
    void note(const std::string& file, const std::optional<std::string>& text) {
        m_isWhole &= text && m_read.size() + text->size() <= mostCompared;
        if (m_isWhole)
            m_read += file + '\0' + *text + '\0';
    }

    const Repository& m_repository;
    int m_files = 0;
    std::uint64_t m_bytes = 0;
    std::vector<UnfitFile> m_unfit;
    std::string m_read; ///< the names and contents of the files
    bool m_isWhole = true;
};

} // namespace

NamedFiles lookAtNamedFiles(const Repository& repository) {
    ConfigurationReader reader(repository);
    for (const auto& file : configurationOfUser())
        reader.read(file, true);
    reader.read(repository.commonDir() + "/config", false);
    reader.read(repository.gitDir() + "/config.worktree", false);
    reader.takeDefaults();
    return reader.takeResult();
}

std::optional<UnfitFile> findUnfitNamed(std::string_view configuration, const std::string& folder) {
    // Records of two parts: scope NUL key LF value NUL. The last one of a key counts.
    std::map<std::string, std::string> values;
    bool isScope = true;
    while (!configuration.empty()) {
        const auto part = configuration.substr(0, configuration.find('\0'));
        configuration.remove_prefix(std::min(part.size() + 1, configuration.size()));
        const auto keyEnd = part.find('\n');
        if (!std::exchange(isScope, !isScope) && keyEnd != std::string_view::npos)
            values[std::string(part.substr(0, keyEnd))] = part.substr(keyEnd + 1);
    }
    for (const auto* setting : settings)
        if (const auto value = values.find(setting); value != values.end())
            if (const auto file = expanded(value->second, folder))
                if (auto why = whyUnfit(*file))
                    return UnfitFile{setting, *file, std::move(*why)};
    return std::nullopt;
}

std::optional<std::string> whyUnfit(const std::string& file) {
    struct stat status;
    if (::stat(file.c_str(), &status) != 0)
        return std::nullopt;
    if (S_ISDIR(status.st_mode)) // git says so itself, or passes over it
        return std::nullopt;
    if (S_ISREG(status.st_mode)) {
        if (status.st_size <= rulesLimit)
            return std::nullopt;
        return "has " + std::to_string(status.st_size) + " bytes";
    }
    constexpr unsigned memoryDevices = 1, null = 3;
    if (S_ISCHR(status.st_mode) && status.st_rdev == ::makedev(memoryDevices, null))
        return std::nullopt;
    return S_ISFIFO(status.st_mode)   ? "is a FIFO"
           : S_ISSOCK(status.st_mode) ? "is a socket"
                                      : "is a device";
}

std::string defaultFileOf(const std::string& setting) {
    return userFolder() + (setting == settings[0] ? "/ignore" : "/attributes");
}

std::vector<std::string> configurationOfUser() {
    std::vector<std::string> files;
    const auto system = variable("GIT_CONFIG_SYSTEM"), global = variable("GIT_CONFIG_GLOBAL");
    if (const auto none = variable("GIT_CONFIG_NOSYSTEM"); none.empty() || none == "0")
        files.push_back(system.empty() ? "/etc/gitconfig" : system);
    if (!global.empty())
        files.push_back(global);
    else
        files.insert(files.end(), {userFolder() + "/config", variable("HOME") + "/.gitconfig"});
    return files;
}

} // namespace quendo::git
