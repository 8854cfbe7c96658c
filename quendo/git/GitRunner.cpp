#include "quendo/git/GitRunner.h"

#include "quendo/adapter/QueryOrigin.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/IndexSizes.h"
#include "quendo/git/KnownConfiguration.h"
#include "quendo/git/LazyFetch.h"
#include "quendo/git/NamedFiles.h"
#include "quendo/git/NativePath.h"
#include "quendo/git/Repository.h"
#include "quendo/platform/ExecutorTurn.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/ScopeGuard.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace quendo::git {
namespace {

// A path, or a commit's message.
constexpr std::size_t largestPiece = 64 * 1024 * 1024;

// How the bounds of GitOptions grow. git keeps some 100 bytes for a file in the index and as much
// for an untracked one; the rest of its memory is for objects that it compares. Packs and the index
// itself are mapped, not counted. An entry of the index takes about 100 bytes, and it takes git
// less than 1 ms to read a small file and compare it.
constexpr std::uint64_t memoryPerIndexByte = 20;
constexpr std::uint64_t outputPerIndexByte = 40;
constexpr std::chrono::microseconds processorPerIndexByte{10};
constexpr std::uint64_t contentPerMillisecond = 20'000; // inflated, checked and converted
constexpr std::uint64_t filesPerMillisecond = 100'000;  // bytes that are read and compared
constexpr std::chrono::hours longestComparison{1};
constexpr int partForConfiguration = 6;
constexpr int timesForAFetch = 10;
constexpr int timesForACall = 3;

// A filter may ask a server; git waits for it without a sign of life.
constexpr int patience = 3;

} // namespace

GitRunner::GitRunner(GitTool& tool, const Repository& repository, const Cancellation& cancellation,
                     std::function<void()> eachRound, std::shared_ptr<SuspendedFilters> filters,
                     std::shared_ptr<KnownConfiguration> known)
    : m_tool(tool), m_repository(repository), m_cancellation(&cancellation),
      m_eachRound(std::move(eachRound)), m_suspendedFilters(std::move(filters)),
      m_known(std::move(known)) {}

void GitRunner::ignoreCancellation() {
    m_never = std::make_shared<const Cancellation>(nullptr);
    m_cancellation = m_never.get();
}

std::set<std::string> GitRunner::suspended(const SuspendedFilters::Drivers& users) const {
    return m_suspendedFilters ? m_suspendedFilters->among(users) : std::set<std::string>();
}

std::set<std::string> GitRunner::suspendFilters(const std::vector<std::string>& running) {
    if (!m_suspendedFilters || m_usersFilters.empty())
        return {};
    auto names = m_suspendedFilters->suspend(m_usersFilters, running);
    for (const auto& name : names)
        QUENDO_LOG(Severity::Notice) << m_repository.rootPath() << ": the filter " << name
                                     << " of the user's configuration did not come to an end; it "
                                        "is not run for a while, and "
                                        "what it would have to look at counts as modified";
    return names;
}

void GitRunner::checkNamedFiles() {
    if (m_hasCheckedNamedFiles)
        return;
    auto named = lookAtNamedFiles(m_repository);
    m_hasCheckedNamedFiles = true; // what it throws is thrown again for the next run
    m_configuration = std::move(named.configuration);
    for (const auto& unfit : named.unfit) {
        const ConfigOverride replaced{unfit.setting, "/dev/null"};
        if (std::ranges::find(m_replacedFiles, replaced) != m_replacedFiles.end())
            continue;
        // Which of several settings counts is known to git.
        std::string output;
        GitRun question{.arguments = {"config", "-z", "--type=path", "--get", unfit.setting}};
        question.consume = [&](std::string_view text) { output += text; };
        constexpr int isNotSet = 1;
        const auto result = run({question}).front();
        if (result.exitCode != 0 && result.exitCode != isNotSet)
            return; // the command that needs it says what is wrong
        auto file = result.exitCode == 0 ? output.substr(0, output.find('\0'))
                                         : defaultFileOf(unfit.setting);
        if (!file.starts_with('/'))
            file.insert(0, m_repository.root() + "/");
        if (const auto why = whyUnfit(file)) {
            QUENDO_LOG(Severity::Notice) << m_repository.rootPath() << " is read without "
                                         << unfit.setting << ": " << file << " " << *why;
            m_replacedFiles.push_back(replaced);
        }
    }
}

// When all files look changed, as after a copy of the working copy, git reads them whole.
std::chrono::milliseconds GitRunner::timeToCompareFiles() {
    if (!m_sizeOfFiles)
        m_sizeOfFiles = sizeOfTrackedFiles(m_repository.gitDir() + "/index");
    return std::min<std::chrono::milliseconds>(
        std::chrono::milliseconds(*m_sizeOfFiles / filesPerMillisecond), longestComparison);
}

std::chrono::milliseconds GitRunner::processorLimit(const GitRun& run, std::uint64_t indexSize) {
    auto limit = m_tool.options().processorLimit;
    if (run.arguments.front() == "config")
        return std::max(limit / partForConfiguration, std::chrono::milliseconds(1));
    limit += std::chrono::duration_cast<std::chrono::milliseconds>(
        processorPerIndexByte * static_cast<std::int64_t>(indexSize));
    limit += std::chrono::milliseconds(run.contentSize / contentPerMillisecond);
    if (run.arguments.front() == "status" || run.arguments.front() == "diff-files")
        limit += timeToCompareFiles();
    return m_fetch ? limit * timesForAFetch : limit;
}

std::uint64_t GitRunner::memoryLimit(const GitRun& run, std::uint64_t indexSize) const {
    const auto& options = m_tool.options();
    if (!run.holdsContent && !m_fetch)
        return options.memoryLimit + memoryPerIndexByte * indexSize;
    const auto machine = static_cast<std::uint64_t>(std::max(0L, ::sysconf(_SC_PHYS_PAGES))) *
                         static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    return std::min(options.contentMemoryLimit, machine / 2);
}

void GitRunner::failOverProcessorBound(const std::string& command, std::chrono::milliseconds bound,
                                       const std::vector<std::string>& running) {
    const auto filters = suspendFilters(running);
    Suspect suspect;
    if (filters.empty()) {
        suspect = findSuspect(m_repository.root(), m_repository.commonDir());
        m_trouble = Trouble::OverBound;
        m_suspect = suspect.file;
    }
    throwOverProcessorBound(m_repository, command, bound, filters, suspect);
}

std::vector<ChildResult> GitRunner::run(const std::vector<GitRun>& runs) {
    m_cancellation->throwIfRequested();
    checkNamedFiles();
    const auto executable = m_tool.executable();
    const bool keepMetadata = m_repository.isWrittenByReading();
    const auto indexSize = m_repository.indexSize();
    const auto outputLimit = m_tool.options().outputLimit + outputPerIndexByte * indexSize;
    auto overrides = m_overrides;
    overrides.insert(overrides.end(), m_replacedFiles.begin(), m_replacedFiles.end());
    std::vector<std::chrono::milliseconds> bounds;
    std::vector<std::uint64_t> printed(runs.size());
    std::vector<std::unique_ptr<ChildProcess>> children;
    std::vector<ChildProcess*> waited;
    const scope_guard account([&] {
        const auto before = m_processorTime;
        for (const auto& child : children)
            m_processorTime += child->result().processorTime;
        if (const auto origin = QueryOrigin::current())
            origin->addProgramTime(m_processorTime - before);
    });
    const std::string& command = runs.front().arguments.front();
    try {
        for (const auto& one : runs) {
            const auto bound = processorLimit(one, indexSize);
            const auto ofCall = processorLimit({.arguments = {""}}, indexSize) * timesForACall;
            if (m_processorTime >= std::max(ofCall, bound))
                failOverProcessorBound(one.arguments.front(), std::max(ofCall, bound), {});
            bounds.push_back(std::min(bound, std::chrono::ceil<std::chrono::milliseconds>(
                                                 std::max(ofCall, bound) - m_processorTime)));
            const std::string& folder = one.folder.empty() ? m_repository.folder() : one.folder;
            const FileDescriptor opened(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!opened)
                throwCannotEnter(Path::fromNative(folder), errno);
            ChildPlan plan{
                .executable = executable,
                .arguments = one.arguments,
                .environment = m_fetch
                                   ? m_fetch->environment(parentFolderOf(folder), overrides,
                                                          one.literalPathspecs)
                                   : GitTool::readingEnvironment(parentFolderOf(folder), overrides,
                                                                 one.literalPathspecs),
                .workingFolder = opened.get(),
                .input = one.input,
                .outputFile = one.outputFile,
                .memoryLimit = memoryLimit(one, indexSize),
                .processorLimit = bounds.back(),
                .keepMetadata = !m_fetch && (keepMetadata || one.keepMetadata),
                .errorsKept = one.errorsKept,
                .asksServer = m_fetch != nullptr,
            };
            if (one.asSubmodule)
                plan.environment.emplace_back("GIT_DIR=.git");
            if (!one.indexFile.empty())
                plan.environment.push_back("GIT_INDEX_FILE=" + one.indexFile);
            const auto consume = [&, run = &one, count = &printed[children.size()]](auto text) {
                *count += text.size();
                if (run->limitOutput && *count > outputLimit) {
                    m_trouble = Trouble::OverBound;
                    throwTooMuchOutput(m_repository, run->arguments.front(), outputLimit);
                }
                if (run->consume)
                    run->consume(text);
            };
            children.push_back(std::make_unique<ChildProcess>(plan, consume));
            waited.push_back(children.back().get());
        }
        // A server may take its time, and nothing that other queries change matters to a fetch.
        std::optional<OutsideExecutor> outside;
        if (m_fetch)
            outside.emplace();
        ChildProcess::waitForAll(waited, *m_cancellation,
                                 m_fetch ? m_tool.options().actionStallLimit
                                         : m_tool.options().stallLimit *
                                               (m_usersFilters.empty() ? 1 : patience),
                                 m_eachRound, m_fetch ? m_fetch->service() : ChildService{});
    } catch (const ChildStalled& stalled) {
        if (const auto filters = suspendFilters(stalled.commands); !filters.empty())
            throwFilterStalled(m_repository, command, filters);
        m_trouble = Trouble::Hung;
        throwGitStalled(m_repository, command, stalled.onFifo);
    } catch (const ChildOverBound& over) {
        failOverProcessorBound(runs[over.child].arguments.front(), bounds[over.child],
                               over.commands);
    } catch (const std::system_error& error) {
        throwCannotStart("git", error);
    }
    std::vector<ChildResult> results;
    for (std::size_t i = 0; i < children.size(); ++i) {
        results.push_back(children[i]->result());
        // The bound of the process itself, which is above that of all together: this thread was
        // held up meanwhile.
        if (results.back().signal == SIGXCPU ||
            (results.back().signal == SIGKILL && results.back().processorTime >= bounds[i]))
            failOverProcessorBound(runs[i].arguments.front(), bounds[i], {});
        if (ranOutOfMemory(results.back()))
            m_trouble = Trouble::OverBound;
    }
    if (m_fetch)
        for (auto& result : results)
            result.errors = m_fetch->presentable(std::move(result.errors));
    return results;
}

std::string GitRunner::read(GitRun one, int accepted) {
    std::string output;
    const std::string command = one.arguments.front();
    one.consume = [&](std::string_view text) { output += text; };
    const auto result = run({one}).front();
    if (result.exitCode != 0 && result.exitCode != accepted)
        throwGitFailure(one.folder.empty() ? m_repository.root() : one.folder, command, result);
    return output;
}

void GitRunner::readConfiguration(std::vector<std::string> arguments, int accepted,
                                  const std::function<void(std::string_view)>& use) {
    m_cancellation->throwIfRequested();
    checkNamedFiles();
    const bool mayKeep =
        m_known && m_configuration && m_overrides.empty() && m_replacedFiles.empty();
    if (mayKeep)
        if (const auto answer = m_known->find(*m_configuration))
            return use(*answer);
    const auto answer = read({.arguments = std::move(arguments)}, accepted);
    use(answer);
    if (mayKeep && lookAtNamedFiles(m_repository).configuration == m_configuration)
        m_known->keep(*m_configuration, answer);
}

void NulSplitter::keep(std::string_view text) {
    if (m_rest.size() + text.size() > largestPiece)
        throwGarbage(m_command);
    m_rest += text;
}

} // namespace quendo::git
