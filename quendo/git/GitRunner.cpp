#include "quendo/git/GitRunner.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/LazyFetch.h"
#include "quendo/git/NativePath.h"
#include "quendo/git/Repository.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <system_error>

namespace quendo::git {
namespace {

constexpr std::size_t largestPiece = 64 * 1024 * 1024;
constexpr std::size_t largestAnswer = 512 * 1024 * 1024;

// What git may hold in memory of its own. It keeps some 100 bytes for a file in the index and as
// much for an untracked one; the rest is for objects that it compares. Packs and the index itself
// are mapped, not counted.
constexpr std::uint64_t memoryBase = std::uint64_t{1} << 30;
constexpr std::uint64_t memoryPerIndexByte = 20;

// A filter may ask a server; git waits for it without a sign of life.
constexpr int patience = 3;

} // namespace

GitRunner::GitRunner(GitTool& tool, const Repository& repository, const Cancellation& cancellation,
                     std::function<void()> eachRound)
    : m_tool(tool), m_repository(repository), m_cancellation(&cancellation),
      m_eachRound(std::move(eachRound)) {}

void GitRunner::ignoreCancellation() {
    m_never = std::make_shared<const Cancellation>(nullptr);
    m_cancellation = m_never.get();
}

std::vector<ChildResult> GitRunner::run(const std::vector<GitRun>& runs) {
    m_cancellation->throwIfRequested();
    const auto executable = m_tool.executable();
    const bool keepMetadata = m_repository.isWrittenByReading();
    const auto memoryLimit = memoryBase + memoryPerIndexByte * m_repository.indexSize();
    std::vector<std::unique_ptr<ChildProcess>> children;
    std::vector<ChildProcess*> waited;
    const std::string& command = runs.front().arguments.front();
    try {
        for (const auto& one : runs) {
            const std::string& folder = one.folder.empty() ? m_repository.folder() : one.folder;
            const FileDescriptor opened(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!opened)
                throwCannotEnter(Path::fromNative(folder), errno);
            ChildPlan plan{
                .executable = executable,
                .arguments = one.arguments,
                .environment = m_fetch
                                   ? m_fetch->environment(parentFolderOf(folder), m_overrides,
                                                          one.literalPathspecs)
                                   : GitTool::readingEnvironment(parentFolderOf(folder),
                                                                 m_overrides, one.literalPathspecs),
                .workingFolder = opened.get(),
                .input = one.input,
                .outputFile = one.outputFile,
                .memoryLimit = one.limitMemory && !m_fetch ? memoryLimit : 0,
                .keepMetadata = !m_fetch && (keepMetadata || one.keepMetadata),
                .errorsKept = one.errorsKept,
                .asksServer = m_fetch != nullptr,
            };
            if (one.asSubmodule)
                plan.environment.emplace_back("GIT_DIR=.git");
            if (!one.indexFile.empty())
                plan.environment.push_back("GIT_INDEX_FILE=" + one.indexFile);
            children.push_back(std::make_unique<ChildProcess>(plan, one.consume));
            waited.push_back(children.back().get());
        }
        ChildProcess::waitForAll(waited, *m_cancellation,
                                 m_fetch ? m_tool.options().actionStallLimit
                                         : m_tool.options().stallLimit * (m_patient ? patience : 1),
                                 m_eachRound, m_fetch ? m_fetch->service() : ChildService{});
    } catch (const ChildStalled& stalled) {
        throwGitStalled(m_repository, command, stalled.onFifo);
    } catch (const std::system_error& error) {
        throwCannotStart("git", error);
    }
    std::vector<ChildResult> results;
    for (const auto& child : children)
        results.push_back(child->result());
    if (m_fetch)
        for (auto& result : results)
            result.errors = m_fetch->presentable(std::move(result.errors));
    return results;
}

std::string GitRunner::read(GitRun one, int accepted) {
    std::string output;
    const std::string command = one.arguments.front();
    one.consume = [&](std::string_view text) {
        if (output.size() + text.size() > largestAnswer)
            throwGarbage(command);
        output += text;
    };
    const auto result = run({one}).front();
    if (result.exitCode != 0 && result.exitCode != accepted)
        throwGitFailure(one.folder.empty() ? m_repository.root() : one.folder, command, result);
    return output;
}

void NulSplitter::keep(std::string_view text) {
    if (m_rest.size() + text.size() > largestPiece)
        throwGarbage(m_command);
    m_rest += text;
}

} // namespace quendo::git
