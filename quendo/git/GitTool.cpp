#include "quendo/git/GitTool.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/ChildProcess.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

extern char** environ;

namespace quendo::git {
namespace {

// 2.31 is the first with GIT_CONFIG_COUNT, without which settings whose names hold "=" could not
// be overridden.
constexpr int oldestMajor = 2;
constexpr int oldestMinor = 31;

// Where the user's and the system's configuration lie belongs to the user, not to the repository
// that some git was working on when it started this process.
constexpr std::array kept = {"GIT_CONFIG_GLOBAL", "GIT_CONFIG_SYSTEM", "GIT_CONFIG_NOSYSTEM"};

// Set by us, or apt to change what git says or whom it asks.
constexpr std::array dropped = {"LC_ALL", "LANGUAGE", "PAGER", "SSH_ASKPASS", "EDITOR", "VISUAL"};

bool isPassedOn(std::string_view name) {
    for (const std::string_view one : kept)
        if (name == one)
            return true;
    for (const std::string_view one : dropped)
        if (name == one)
            return false;
    return !name.starts_with("GIT_");
}

bool isExecutableFile(const std::string& path, struct stat& status) {
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

} // namespace

GitTool::GitTool(GitOptions options) : m_options(std::move(options)) {}

GitTool::Identity GitTool::find() const {
    struct stat status;
    const auto identify = [&](const std::string& path) {
        return Identity{
            path, status.st_dev, status.st_ino, {status.st_mtim.tv_sec, status.st_mtim.tv_nsec}};
    };
    const std::string& name = m_options.executable;
    if (name.find('/') != std::string::npos) {
        if (name.front() == '/' && isExecutableFile(name, status))
            return identify(name);
        throw exception::ToolError("there is no git at " + name +
                                   "; give the absolute path of an executable");
    }
    const char* variable = std::getenv("PATH");
    std::string_view folders = variable != nullptr ? variable : "/usr/local/bin:/usr/bin:/bin";
    while (!folders.empty()) {
        const auto end = std::min(folders.find(':'), folders.size());
        const auto folder = folders.substr(0, end);
        folders.remove_prefix(std::min(end + 1, folders.size()));
        // A relative folder is one of the place we happen to be in: maybe a hostile repository.
        if (!folder.starts_with('/'))
            continue;
        const std::string path = std::string(folder) + "/" + name;
        if (isExecutableFile(path, status))
            return identify(path);
    }
    throw exception::ToolError("git is needed and was not found in PATH; install git " +
                               std::to_string(oldestMajor) + "." + std::to_string(oldestMinor) +
                               " or newer");
}

std::string GitTool::executable() {
    auto found = find();
    const std::lock_guard lock(m_lock);
    if (found != m_checked) {
        checkVersion(found.path);
        m_checked = found;
    }
    return found.path;
}

void GitTool::checkVersion(const std::string& path) const {
    const FileDescriptor root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const ChildPlan plan{.executable = path,
                         .arguments = {"version"},
                         .environment = readingEnvironment("/", {}, false),
                         .workingFolder = root.get()};
    std::string output;
    const auto needed = std::to_string(oldestMajor) + "." + std::to_string(oldestMinor);
    const Cancellation uncancelled(nullptr);
    try {
        ChildProcess child(plan, [&](std::string_view text) {
            if (output.size() < 1024)
                output += text;
        });
        ChildProcess* const children[] = {&child};
        ChildProcess::waitForAll(children, uncancelled, m_options.versionLimit);
    } catch (const ChildStalled&) {
        throw exception::ToolError(path + " hangs when asked for its version; git " + needed +
                                   " or newer is needed");
    } catch (const std::system_error& error) {
        throw exception::ToolError(path + " cannot be started (" + error.code().message() +
                                   "); git " + needed + " or newer is needed");
    }
    int major = 0, minor = 0;
    if (std::sscanf(output.c_str(), "git version %d.%d", &major, &minor) != 2)
        throw exception::ToolError(path + " does not say its version as git does; git " + needed +
                                   " or newer is needed");
    if (major < oldestMajor || (major == oldestMajor && minor < oldestMinor))
        throw exception::ToolError(path + " is git " + std::to_string(major) + "." +
                                   std::to_string(minor) + ", which is too old; git " + needed +
                                   " or newer is needed");
}

std::vector<std::string> GitTool::readingEnvironment(const std::string& ceiling,
                                                     const std::vector<ConfigOverride>& overrides,
                                                     bool literalPathspecs) {
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        if (isPassedOn(std::string_view(*entry, std::strcspn(*entry, "="))))
            environment.emplace_back(*entry);
    environment.insert(environment.end(), {
                                              "LC_ALL=C",
                                              "GIT_OPTIONAL_LOCKS=0",
                                              "GIT_TERMINAL_PROMPT=0",
                                              "GIT_ASKPASS=true",
                                              "GIT_EDITOR=false",
                                              "GIT_PAGER=cat",
                                              "GIT_ALLOW_PROTOCOL=none",
                                              "GIT_NO_LAZY_FETCH=1",
                                              "GIT_CEILING_DIRECTORIES=" + ceiling,
                                          });
    if (literalPathspecs)
        environment.emplace_back("GIT_LITERAL_PATHSPECS=1");

    std::vector<ConfigOverride> all = {
        {"core.fsmonitor", "false"},
        {"core.hooksPath", "/dev/null"},
        {"log.showSignature", "false"},
        {"i18n.logOutputEncoding", "UTF-8"},
    };
    all.insert(all.end(), overrides.begin(), overrides.end());
    environment.push_back("GIT_CONFIG_COUNT=" + std::to_string(all.size()));
    for (std::size_t i = 0; i < all.size(); ++i) {
        environment.push_back("GIT_CONFIG_KEY_" + std::to_string(i) + "=" + all[i].key);
        environment.push_back("GIT_CONFIG_VALUE_" + std::to_string(i) + "=" + all[i].value);
    }
    return environment;
}

} // namespace quendo::git
