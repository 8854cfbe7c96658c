#include "quendo/git/GitBranch.h"

#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitText.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SmallFile.h"

#include <charconv>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace quendo::git {
namespace {

constexpr int attempts = 3;
constexpr std::size_t lineLimit = 64 * 1024;
constexpr std::size_t todoLimit = 16 * 1024 * 1024; // a line for each commit

UString withoutPrefix(std::string_view reference) {
    constexpr std::string_view branches = "refs/heads/";
    if (reference.starts_with(branches))
        reference.remove_prefix(branches.size());
    return toUString(reference);
}

/// The files that an operation leaves behind for whoever continues it.
class OperationFiles {
public:
    explicit OperationFiles(const std::string& gitDir) : m_gitDir(gitDir + "/") {}

    // The order is that in which git's own prompt looks. A rebase makes picks and merges, so it
    // comes before them.
    BranchState read() const {
        BranchState state;
        if (isFolder("rebase-merge")) {
            state.operation = OngoingOperation::Rebase;
            state.operationBranch = branchIn("rebase-merge/head-name");
            state.progress = progressIn("rebase-merge/msgnum", "rebase-merge/end");
        } else if (isFolder("rebase-apply")) {
            const bool isMailbox = isThere("rebase-apply/applying");
            state.operation = isMailbox ? OngoingOperation::ApplyMailbox : OngoingOperation::Rebase;
            if (!isMailbox)
                state.operationBranch = branchIn("rebase-apply/head-name");
            state.progress = progressIn("rebase-apply/next", "rebase-apply/last");
        } else if (isThere("MERGE_HEAD")) {
            state.operation = OngoingOperation::Merge;
        } else if (const auto pending = pendingPick();
                   isThere("CHERRY_PICK_HEAD") || pending == "pick" || pending == "p") {
            state.operation = OngoingOperation::CherryPick;
        } else if (isThere("REVERT_HEAD") || pending == "revert") {
            state.operation = OngoingOperation::Revert;
        } else if (isThere("BISECT_LOG")) {
            state.operation = OngoingOperation::Bisect;
            state.operationBranch = branchIn("BISECT_START");
        }
        return state;
    }

private:
    bool isFolder(const char* name) const {
        struct stat status;
        return ::stat((m_gitDir + name).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }
    bool isThere(const char* name) const {
        struct stat status;
        return ::stat((m_gitDir + name).c_str(), &status) == 0;
    }
    std::string line(const char* name) const {
        const auto text = readSmallFile(m_gitDir + name, lineLimit).value_or("");
        return withoutLineEnds(text.substr(0, text.find('\n')));
    }
    // Without a branch some say "detached HEAD" and some the commit.
    UString branchIn(const char* name) const {
        const auto text = line(name);
        return text == "detached HEAD" || isObjectName(text) ? UString() : withoutPrefix(text);
    }
    std::optional<BranchState::Progress> progressIn(const char* step, const char* steps) const {
        const auto number = [&](const char* name) {
            const auto text = line(name);
            std::size_t value = 0;
            std::from_chars(text.data(), text.data() + text.size(), value);
            return value;
        };
        const BranchState::Progress progress{number(step), number(steps)};
        const bool isTrue = progress.step >= 1 && progress.step <= progress.steps;
        return isTrue ? std::optional(progress) : std::nullopt;
    }
    // Between two picks of a series, when the user has committed one, nothing else tells of it.
    std::string pendingPick() const {
        const auto text = readSmallFile(m_gitDir + "sequencer/todo", todoLimit).value_or("");
        return text.substr(0, text.find_first_of(" \t\n"));
    }

    const std::string m_gitDir;
};

/// What stands behind `word` in git's "ahead 1, behind 2"; 0 if it is not there.
std::size_t countBehind(std::string_view word, std::string_view text) {
    std::size_t count = 0;
    if (const auto at = text.find(word); at != std::string_view::npos)
        std::from_chars(text.data() + at + word.size(), text.data() + text.size(), count);
    return count;
}

/// Fills in commit and upstream of a branch that has a commit.
/// @return false if there is no such branch
bool readBranch(GitRunner& git, const std::string& reference, BranchState& state) {
    std::vector<std::string> parts;
    NulSplitter("for-each-ref")
        .feed(git.read({.arguments = {"for-each-ref",
                                      "--format=%(refname)%00%(objectname)%00%(upstream:short)%00"
                                      "%(upstream:track,nobracket)%00",
                                      "--", reference}}),
              [&](std::string_view part) { parts.emplace_back(part); });
    // The name of a branch without a commit may be the folder of others.
    for (std::size_t i = 0; i + 3 < parts.size(); i += 4) {
        const std::string_view name = parts[i]; // behind the end of the line before
        if (name.substr(name.starts_with('\n')) != reference)
            continue;
        if (!isObjectName(parts[i + 1]))
            throwGarbage("for-each-ref");
        state.commit = toUString(parts[i + 1]);
        state.upstream = toUString(parts[i + 2]);
        const auto& track = parts[i + 3];
        state.isUpstreamGone = track == "gone";
        if (!state.upstream.empty() && !state.isUpstreamGone)
            state.divergence = {countBehind("ahead ", track), countBehind("behind ", track)};
        return true;
    }
    return false;
}

/// Fills in the upstream of a branch without a commit, of which only git's status tells.
void readUnbornBranch(GitRunner& git, BranchState& state) {
    // No file has this path: none is compared, and no filter is asked.
    const auto nothing = git.repository().root() + "/.git";
    NulSplitter("status").feed(
        git.read({.arguments = {"status", "--porcelain=v2", "-z", "--branch", "--no-ahead-behind",
                                "--untracked-files=no", "--ignore-submodules=all", "--no-renames",
                                "--", nothing}}),
        [&](std::string_view record) {
            constexpr std::string_view upstream = "# branch.upstream ";
            if (record.starts_with(upstream))
                state.upstream = toUString(record.substr(upstream.size()));
        });
    if (state.upstream.empty())
        return;
    const auto result =
        git.run({GitRun{.arguments = {"rev-parse", "--verify", "--quiet", "@{upstream}"}}}).front();
    state.isUpstreamGone = result.exitCode != 0;
}

void readHead(GitRunner& git, BranchState& state) {
    constexpr int isDetached = 1;
    const auto reference =
        withoutLineEnds(git.read({.arguments = {"symbolic-ref", "--quiet", "HEAD"}}, isDetached));
    if (reference.empty()) {
        state.commit = toUString(
            withoutLineEnds(git.read({.arguments = {"rev-parse", "--verify", "HEAD^{commit}"}})));
        return;
    }
    state.branch = withoutPrefix(reference);
    if (!readBranch(git, reference, state))
        readUnbornBranch(git, state);
}

} // namespace

BranchState readBranchState(GitRunner& git) {
    const auto& repository = git.repository();
    const OperationFiles files(repository.gitDir());
    for (int attempt = 1;; ++attempt) {
        repository.checkMetadataFiles();
        const auto stamp = repository.stamp();
        const auto operation = files.read();
        auto state = operation;
        readHead(git, state);
        if (attempt == attempts || (repository.stamp() == stamp && files.read() == operation))
            return state;
    }
}

} // namespace quendo::git
