#include "quendo/git/GitTool.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/ChildProcess.h"
#include "quendo/git/GitFailure.h"

#include <algorithm>
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

// Who the user is and how servers are reached are the user's as well; for a git that acts.
constexpr std::array keptToAct = {
    "GIT_AUTHOR_NAME",   "GIT_AUTHOR_EMAIL", "GIT_COMMITTER_NAME", "GIT_COMMITTER_EMAIL",
    "GIT_SSH",           "GIT_SSH_COMMAND",  "GIT_SSH_VARIANT",    "GIT_PROXY_COMMAND",
    "GIT_SSL_NO_VERIFY", "GIT_SSL_CAINFO",   "GIT_SSL_CAPATH",     "GIT_SSL_CERT",
    "GIT_SSL_KEY",
};
// The language of git's words alone: hooks keep the user's character set.
constexpr std::array droppedToAct = {"LC_ALL", "LC_MESSAGES", "LANGUAGE", "PAGER"};

bool contains(const auto& names, std::string_view name) {
    return std::ranges::any_of(names, [&](std::string_view one) { return one == name; });
}

template <class Predicate>
std::vector<std::string> inherited(Predicate&& isPassedOn) {
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        if (isPassedOn(std::string_view(*entry, std::strcspn(*entry, "="))))
            environment.emplace_back(*entry);
    return environment;
}

void addSettings(std::vector<std::string>& environment,
                 const std::vector<ConfigOverride>& settings) {
    environment.push_back("GIT_CONFIG_COUNT=" + std::to_string(settings.size()));
    for (std::size_t i = 0; i < settings.size(); ++i) {
        environment.push_back("GIT_CONFIG_KEY_" + std::to_string(i) + "=" + settings[i].key);
        environment.push_back("GIT_CONFIG_VALUE_" + std::to_string(i) + "=" + settings[i].value);
    }
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
    ChildPlan plan{.executable = path,
                   .arguments = {"version"},
                   .environment = readingEnvironment("/", {}, false),
                   .workingFolder = root.get(),
                   .memoryLimit = m_options.memoryLimit,
                   .processorLimit = m_options.versionLimit};
    // git reads the user's configuration even to say its version. What is wrong with that is
    // reported by the command that needs it.
    std::erase_if(plan.environment, [](const auto& one) {
        return one.starts_with("GIT_CONFIG_GLOBAL=") || one.starts_with("GIT_CONFIG_NOSYSTEM=");
    });
    plan.environment.insert(plan.environment.end(),
                            {"GIT_CONFIG_GLOBAL=/dev/null", "GIT_CONFIG_NOSYSTEM=1"});
    ChildResult result;
    std::string output;
    const auto needed = std::to_string(oldestMajor) + "." + std::to_string(oldestMinor);
    const auto hangs = " hangs when asked for its version; git " + needed + " or newer is needed";
    const Cancellation uncancelled(nullptr);
    try {
        ChildProcess child(plan, [&](std::string_view text) {
            if (output.size() < 1024)
                output += text;
        });
        ChildProcess* const children[] = {&child};
        ChildProcess::waitForAll(children, uncancelled, m_options.versionLimit);
        result = child.result();
    } catch (const ChildStalled&) {
        throw exception::ToolError(path + hangs);
    } catch (const ChildOverBound&) {
        throw exception::ToolError(path + hangs);
    } catch (const std::system_error& error) {
        throwCannotStart(path, error);
    }
    int major = 0, minor = 0;
    if (std::sscanf(output.c_str(), "git version %d.%d", &major, &minor) != 2) {
        if (result.exitCode != 0)
            throw exception::ToolError(path +
                                       " does not print its version: " + describeEnd(result));
        throw exception::ToolError(path + " does not print its version as git does; git " + needed +
                                   " or newer is needed");
    }
    if (major < oldestMajor || (major == oldestMajor && minor < oldestMinor))
        throw exception::ToolError(path + " is git " + std::to_string(major) + "." +
                                   std::to_string(minor) + ", which is too old; git " + needed +
                                   " or newer is needed");
}

std::vector<std::string> GitTool::readingEnvironment(const std::string& ceiling,
                                                     const std::vector<ConfigOverride>& overrides,
                                                     bool literalPathspecs) {
    auto environment = inherited([](std::string_view name) {
        return contains(kept, name) || (!contains(dropped, name) && !name.starts_with("GIT_"));
    });
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
        // `git status -- PATH` misses what is staged in a folder that a sparse index collapses.
        {"index.sparse", "false"},
        {"core.hooksPath", "/dev/null"},
        {"log.showSignature", "false"},
        // In which order files are listed does not matter, and any file may be named for it.
        {"diff.orderFile", "/dev/null"},
        {"i18n.logOutputEncoding", "UTF-8"},
    };
    all.insert(all.end(), overrides.begin(), overrides.end());
    addSettings(environment, all);
    return environment;
}

std::vector<std::string> GitTool::fetchingEnvironment(const std::string& ceiling,
                                                      const std::vector<ConfigOverride>& overrides,
                                                      bool literalPathspecs) {
    auto environment = readingEnvironment(ceiling, overrides, literalPathspecs);
    std::erase_if(environment, [](const auto& one) {
        return one.starts_with("GIT_ALLOW_PROTOCOL=") || one.starts_with("GIT_NO_LAZY_FETCH=") ||
               one.starts_with("GIT_ASKPASS=");
    });
    for (auto& one : inherited([](std::string_view name) {
             return contains(keptToAct, name) || name == "SSH_ASKPASS";
         }))
        environment.push_back(std::move(one));
    environment.emplace_back("GIT_ASKPASS=false");
    environment.emplace_back("GIT_ALLOW_PROTOCOL=file:git:http:https:ssh");
    return environment;
}

std::vector<std::string> GitTool::actingEnvironment(const std::string& ceiling,
                                                    const std::vector<ConfigOverride>& overrides) {
    auto environment = inherited([](std::string_view name) {
        return contains(kept, name) || contains(keptToAct, name) ||
               (!contains(droppedToAct, name) && !name.starts_with("GIT_"));
    });
    if (const char* all = std::getenv("LC_ALL"); all != nullptr && *all != '\0') {
        std::erase_if(environment, [](const auto& one) { return one.starts_with("LC_CTYPE="); });
        environment.push_back(std::string("LC_CTYPE=") + all);
    }
    environment.insert(environment.end(), {
                                              "LC_MESSAGES=C",
                                              "GIT_TERMINAL_PROMPT=0",
                                              "GIT_ASKPASS=false",
                                              "GIT_EDITOR=false",
                                              "GIT_PAGER=cat",
                                              "GIT_CEILING_DIRECTORIES=" + ceiling,
                                          });
    std::vector<ConfigOverride> all = {
        {"color.ui", "false"},
    };
    all.insert(all.end(), overrides.begin(), overrides.end());
    addSettings(environment, all);
    return environment;
}

} // namespace quendo::git
