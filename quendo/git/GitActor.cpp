#include "quendo/git/GitActor.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/ChildProcess.h"
#include "quendo/git/GitAdapter.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/NativePath.h"
#include "quendo/git/Repository.h"
#include "quendo/platform/ExecutorTurn.h"
#include "quendo/platform/OwnWrites.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/stat.h>
#include <system_error>

namespace quendo::git {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds lookAtLock{25};
constexpr std::size_t longestLine = 64U << 10U;

// "Unable to create '<file>': File exists."
std::optional<std::string> lockNamedIn(const std::string& errors) {
    constexpr std::string_view before = "Unable to create '", after = ".lock': File exists";
    const auto end = errors.find(after);
    const auto start = end == std::string::npos ? end : errors.rfind(before, end);
    if (start == std::string::npos)
        return std::nullopt;
    const auto name = start + before.size();
    return errors.substr(name, end + std::string_view(".lock").size() - name);
}

// Another git committed between the first look and the last step.
bool headHasMoved(const std::string& errors) {
    const auto says = [&](std::string_view words) { return errors.find(words) != errors.npos; };
    return says("cannot lock ref 'HEAD': ") &&
           (says(" but expected ") || says("reference already exists"));
}

bool exists(const std::string& file) {
    struct stat status;
    return ::lstat(file.c_str(), &status) == 0;
}

} // namespace

std::string describeLock(const std::string& file) {
    struct stat status;
    std::string since;
    if (::lstat(file.c_str(), &status) == 0) {
        tm local{};
        char text[32];
        ::localtime_r(&status.st_mtim.tv_sec, &local);
        if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) != 0)
            since = std::string(" since ") + text;
    }
    return "another Git process holds " + Path::fromNative(file).toUtf8() + since +
           "; try again when it has finished, and only if no Git process is running remove that "
           "file";
}

GitActor::GitActor(GitTool& tool, const Repository& repository, const Cancellation& cancellation,
                   std::function<void(std::string_view)> eachLine,
                   std::shared_ptr<CredentialProvider> provider)
    : m_tool(tool), m_repository(repository), m_cancellation(&cancellation),
      m_eachLine(std::move(eachLine)),
      m_credentials(provider ? std::make_unique<CredentialServer>(std::move(provider)) : nullptr) {}

GitActor::~GitActor() = default;

void GitActor::ignoreCancellation() {
    m_never = std::make_unique<const Cancellation>(nullptr);
    m_cancellation = m_never.get();
}

GitActor::Time GitActor::lockDeadline() const {
    return Clock::now() + m_tool.options().lockLimit;
}

std::string GitActor::run(const GitAction& action) {
    const auto deadline = lockDeadline();
    for (;;) {
        waitForIndex(deadline);
        auto result = runOnce(action);
        if (result.exitCode == 0)
            return std::move(result.output);
        // Somebody else was quicker. git takes the index before it does anything, but looks at HEAD
        // before that, and does not overwrite it then.
        const auto lock = lockNamedIn(result.errors);
        const bool isLate = (lock && lock->ends_with("/index.lock")) || headHasMoved(result.errors);
        if (isLate && !result.cancelled && Clock::now() < deadline)
            continue;
        fail(action.arguments.front(), result);
    }
}

void GitActor::waitForIndex(Time deadline) {
    const auto lock = m_repository.gitDir() + "/index.lock";
    std::optional<OutsideExecutor> outside;
    while (exists(lock)) {
        if (!outside) {
            outside.emplace();
            tell("waiting for another Git process that holds " + Path::fromNative(lock).toUtf8());
        }
        if (Clock::now() >= deadline)
            throw exception::OperationFailedError(describeLock(lock));
        pollfd cancelled{m_cancellation->fileDescriptor(), POLLIN, 0};
        ::poll(&cancelled, 1, static_cast<int>(lookAtLock.count()));
        m_cancellation->throwIfRequested();
    }
}

// A check-in moves HEAD and the branch, and everything is refreshed after it. The other commands
// write the index, and `mv` the configuration of a submodule: whatever else changes meanwhile,
// another program did. They replace the index once, or not at all.
OwnWrites::Footprint GitActor::footprintOf(const GitAction& action) const {
    const auto& command = action.arguments.front();
    if (command == "commit" || command == "reset")
        return {};
    const auto gitDir = Path::fromNative(m_repository.gitDir());
    return {[gitDir,
             modules = Path::fromNative(m_repository.commonDir()) / u"modules"](const Path& path) {
                return path.isBelow(modules) ||
                       (path.parentPath() == gitDir &&
                        (path.fileName().string() == u"index" ||
                         path.fileName().string().starts_with(u"sharedindex.")));
            },
            gitDir / u"index"};
}

ActingResult GitActor::runOnce(const GitAction& action) {
    m_cancellation->throwIfRequested();
    const auto& folder = m_repository.folder();
    const FileDescriptor opened(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!opened)
        throwCannotEnter(Path::fromNative(folder), errno);
    auto settings = action.settings;
    const auto lockLimit = std::to_string(m_tool.options().lockLimit.count());
    settings.push_back({"core.filesRefLockTimeout", lockLimit});
    settings.push_back({"core.packedRefsTimeout", lockLimit});
    WhileActing meanwhile;
    if (m_credentials) {
        const auto ask = m_credentials->settings();
        settings.insert(settings.end(), ask.begin(), ask.end());
        meanwhile.served = m_credentials->descriptor();
        meanwhile.serve = [this] { m_credentials->serve(); };
    }
    // What prints progress ends its lines with a carriage return. A line of an absurd length is
    // dropped and not cut: a part of a password is not recognised as one.
    std::string line;
    const auto endLine = [&] {
        if (!line.empty() && line.size() < longestLine)
            tell(line);
        line.clear();
    };
    meanwhile.takeErrors = [&](std::string_view text) {
        for (const char one : text) {
            if (one != '\n' && one != '\r') {
                if (line.size() < longestLine)
                    line += one;
                continue;
            }
            endLine();
        }
    };
    OwnWrites::Span span(footprintOf(action));
    try {
        auto result = runActing(
            {
                .executable = m_tool.executable(),
                .arguments = action.arguments,
                .environment = GitTool::actingEnvironment(parentFolderOf(folder), settings),
                .workingFolder = opened.get(),
                .input = action.input,
                .message = action.message,
                .stallLimit = m_tool.options().actionStallLimit,
            },
            *m_cancellation, meanwhile);
        endLine();
        if (result.exitCode != 0)
            span.fail(); // no refresh follows it
        return result;
    } catch (const std::system_error& error) {
        span.fail();
        throwCannotStart("git", error);
    } catch (...) {
        span.fail();
        throw;
    }
}

void GitActor::tell(std::string line) const {
    constexpr std::size_t mostTold = 1024;
    if (!m_eachLine)
        return;
    line = presentable(std::move(line));
    line.resize(std::min(line.size(), mostTold));
    m_eachLine(line);
}

void GitActor::fail(std::string_view command, const ActingResult& result) const {
    const std::string root = m_repository.rootPath().toUtf8();
    const auto says = [&](std::string_view words) {
        return result.errors.find(words) != std::string::npos;
    };
    const auto place = [&](std::string_view before) {
        const auto start = result.errors.find(before);
        const auto end =
            start == std::string::npos ? start : result.errors.find('\'', start + before.size());
        return end == std::string::npos ? std::string("the server")
                                        : withoutSecrets(result.errors.substr(
                                              start + before.size(), end - start - before.size()));
    };
    if (result.cancelled)
        throw exception::OperationCancelledError("git " + std::string(command) +
                                                 " was cancelled in " + root);
    if (result.stalled)
        throw exception::ToolError("git " + std::string(command) + " hangs in " + root +
                                   " and was ended; look for a hook, a filter or a signing "
                                   "program that waits for something");
    if (const auto lock = lockNamedIn(result.errors))
        throw exception::OperationFailedError(describeLock(*lock));
    if (m_credentials && m_credentials->declined())
        throw exception::OperationFailedError("no credentials were given for " +
                                              withoutSecrets(*m_credentials->declined()) +
                                              ", which asks for them; try again and give them, or "
                                              "set up a credential helper for Git");
    if (says("Authentication failed for '"))
        throw exception::OperationFailedError(
            place("Authentication failed for '") +
            " refused the credentials; check user name and password");
    for (const std::string_view asked :
         {"could not read Username for '", "could not read Password for '"})
        if (says(asked))
            throw exception::OperationFailedError(
                place(asked) + " asks for credentials, and there is nobody to ask for them; set "
                               "up a credential helper for Git");
    if (says("Please tell me who you are"))
        throw exception::OperationFailedError(
            "Git does not know who you are; run git config --global user.name NAME and git config "
            "--global user.email ADDRESS");
    throwCommandFailure(m_repository.root(), command,
                        {result.exitCode, result.signal, presentable(result.errors)});
}

std::string GitActor::presentable(std::string text) const {
    text = m_credentials ? m_credentials->withoutPasswords(std::move(text)) : std::move(text);
    // Addresses may hold passwords as well: of the remote, of a proxy.
    return withoutSecretsInText(std::move(text));
}

} // namespace quendo::git
