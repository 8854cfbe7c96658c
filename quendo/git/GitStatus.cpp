#include "quendo/git/GitStatus.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/git/FilterDrivers.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitText.h"
#include "quendo/git/IgnoreQuery.h"
#include "quendo/git/NamedFiles.h"
#include "quendo/git/NativePath.h"
#include "quendo/git/PorcelainRecord.h"
#include "quendo/git/Repository.h"
#include "quendo/platform/IsChildFolderQuery.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>

// How an answer is put together
// -----------------------------
// Two questions go to git at the same time: `git ls-files` for what is tracked, which gives the
// unmodified files and the folders, and `git status` for what differs. Their answers are one only
// if the index and HEAD stayed as they were, so both are stamped before and after; when a stamp
// moved the questions are asked again, three times at the most.
//
// Neither question looks inside submodules: `git status` would run a git in each of them, with the
// filters that the submodule's own configuration names. When there are submodules, a further
// question is asked for them alone, after the filters of each have been found and put aside (see
// FilterDrivers). One that cannot be read then costs its own state and not the whole answer.
//
// The rest is what git does not say and a look at the disk does: which folders are there and can be
// read, which files cannot, whether an untracked folder is another working copy. All of these go
// through a descriptor of the root, because a path may be too long to be named from "/".
//
// A state is the same whatever was asked for: pathspecs only narrow what git looks at. What git
// collapses (an ignored folder) or refuses (a path in another working copy) is worked out here for
// paths that were asked for by name.

namespace quendo::git {
namespace {

using Kind = PorcelainRecord::Kind;

constexpr int attempts = 3;
constexpr std::size_t mostPathspecs = 64; // beyond, git's matching costs more than a whole answer
constexpr std::size_t mostPathspecBytes = 64 * 1024; // a system takes 128 KiB for one argument
constexpr std::size_t submodulesAtOnce = 200;
constexpr int mostSubmodules = 5'000; // looked into for one answer, those in others included
// Beyond, renames are found by equal content only: comparing all pairs takes seconds.
constexpr const char* renameLimit = "-l200";
constexpr std::string_view submoduleMode = "160000";
constexpr char isChecked = 'H';
constexpr std::string_view impossibleName = "an entry with a name that no file can have";

std::string_view parentOf(std::string_view path) {
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

UString wide(std::string_view text) {
    return toUString(text);
}

UString whyUnreadable(int error) {
    std::string words = std::strerror(error);
    words.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(words.front())));
    return u"cannot be read: " + wide(words);
}

/// Whether this error of a look at a path says that nothing is there.
bool hasVanished(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

std::string_view conflictKind(std::string_view columns) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kinds = {{
        {"DD", "both deleted"},
        {"AU", "added by us"},
        {"UD", "deleted by them"},
        {"UA", "added by them"},
        {"DU", "deleted by us"},
        {"AA", "both added"},
        {"UU", "both modified"},
    }};
    const auto found =
        std::ranges::find(kinds, columns, [](const auto& kind) { return kind.first; });
    return found == kinds.end() ? "unknown" : found->second;
}

LocalStatus stateOf(Kind kind, std::string_view columns) {
    switch (kind) {
    case Kind::Unmerged:
        return LocalStatus::Conflicted;
    case Kind::Untracked:
        return LocalStatus::NotUnderSourceControl;
    case Kind::Ignored:
        return LocalStatus::Ignored;
    case Kind::Changed:
        break;
    }
    const char staged = columns[0], onDisk = columns[1];
    if (staged == 'D')
        return LocalStatus::Deleted;
    if (onDisk == 'D')
        return LocalStatus::Missing;
    if (staged == 'A' || onDisk == 'A')
        return LocalStatus::Added;
    return LocalStatus::Modified;
}

FileState withProperty(const FileState& state, std::u16string_view name,
                       std::u16string_view value) {
    auto properties = state.getProperties();
    properties.emplace_back(name, value);
    return FileState(state.getState(), state.isFolder(), std::move(properties));
}

FileState withState(const FileState& state, LocalStatus status) {
    return FileState(status, state.isFolder(), state.getProperties());
}

FileState unknown(bool isFolder, const UString& why) {
    return FileState(LocalStatus::Unknown, isFolder, {FileProperty(property::why, why)});
}

struct Scope {
    std::vector<std::string> paths; ///< relative, native; empty: everything
    bool includeUntracked = true;
};

/// One attempt at an answer.
class Collector {
public:
    Collector(GitRunner& git, const Scope& scope)
        : m_git(git), m_repository(git.repository()), m_scope(scope),
          m_rootFolder(::open(m_repository.root().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        if (!m_rootFolder)
            throwCannotEnter(m_repository.rootPath(), errno);
    }

    std::map<Path, FileState> collect();

    /// What stands at a path, symbolic links not followed; nothing when there is nothing.
    std::optional<mode_t> modeOf(const std::string& relative) const {
        struct stat status;
        if (::fstatat(m_rootFolder.get(), relative.empty() ? "." : relative.c_str(), &status,
                      AT_SYMLINK_NOFOLLOW) != 0)
            return std::nullopt;
        return status.st_mode;
    }

    std::vector<std::string> pathspecs(const std::vector<std::string>& relative) const;

private:
    struct Folder {
        bool tracked = false;
        bool untracked = false;
        bool mustExist = false; ///< it holds something that git looked for on the disk
    };
    /// What is found on the way to a folder.
    enum class Way { Folders, Link, Nothing };

    Path pathOf(std::string_view relative) const {
        return relative.empty() ? m_repository.rootPath() : m_repository.rootPath().child(relative);
    }

    GitRun statusRun(const std::vector<std::string>& relative, bool lookIntoSubmodules,
                     bool includeUntracked);
    void askGit();
    void takeTracked(std::string_view record);
    void takeStatus(std::string_view record);
    void take(const PorcelainRecord& record);
    Folder& noteFolders(std::string_view folder, bool tracked, bool untracked);
    void askForSubmodules(FilterDrivers drivers);
    /// The submodules that one holds, itself among them.
    struct Visited {
        std::set<std::pair<dev_t, ino_t>> folders;
        std::vector<std::pair<std::string, std::set<std::string>>> withoutClean; ///< by path
    };
    /// Without those of the user's that are suspended.
    FilterDrivers usable(FilterDrivers drivers) const {
        drivers.suspend(m_git.suspended(drivers.ofUser));
        return drivers;
    }
    FilterDrivers driversOfSubmodule(const std::string& relative, Visited& visited);
    void
    addUnverifiedIn(const std::string& submodule,
                    const std::vector<std::pair<std::string, std::set<std::string>>>& withoutClean);
    void refuse(const std::string& submodule, const exception::SourceControlException& error);
    void askForRemovedButPresent();
    void addRenames();
    void addVanished();
    void takeMissing(const std::string& path);
    struct Unverified {
        std::string path;
        std::string filter;
    };
    /// @param submodule a folder to look in instead of the working copy; empty for none
    std::vector<Unverified> findUnverified(const std::set<std::string>& withoutClean,
                                           const std::string& submodule);
    void addUnverified(const FilterDrivers& drivers);
    [[noreturn]] void throwBadRecord(std::string_view record) const;
    void addUnreadable(const std::string& errors);
    Way wayTo(const std::string& folder);
    void addBeyondLinks();
    void addFolders();

    GitRunner& m_git;
    const Repository& m_repository;
    const Scope& m_scope;
    FileDescriptor m_rootFolder;

    std::map<Path, FileState> m_states;
    std::unordered_map<std::string, Folder> m_folders;
    std::unordered_map<std::string, Way> m_ways{{"", Way::Folders}};
    std::string m_lastTrackedFolder = "/"; // no relative path
    Folder* m_lastNoted = nullptr;         ///< that of m_lastTrackedFolder
    std::string m_lastTracked;
    std::vector<std::string> m_submodules;
    int m_submodulesVisited = 0;
    std::vector<std::string> m_staleOnDisk; ///< changed in the second column
    std::vector<std::string> m_removed;     ///< removed from the index
    bool m_hasAdditions = false;
    std::unordered_map<std::string, FileState> m_plainStates; ///< by columns
    std::string m_warnings;
};

std::vector<std::string> Collector::pathspecs(const std::vector<std::string>& relative) const {
    // git takes them relative to where it runs, which is the root unless core.worktree moved it.
    if (m_repository.folder() == m_repository.root())
        return relative;
    std::vector<std::string> result;
    for (const auto& path : relative)
        result.push_back(path.empty() ? m_repository.root() : m_repository.root() + "/" + path);
    if (result.empty())
        result.push_back(m_repository.root());
    return result;
}

GitRun Collector::statusRun(const std::vector<std::string>& relative, bool lookIntoSubmodules,
                            bool includeUntracked) {
    std::vector<std::string> arguments = {"status", "--porcelain=v2", "-z", "--no-renames"};
    if (includeUntracked)
        arguments.insert(arguments.end(), {"--untracked-files=all", "--ignored=matching"});
    else
        arguments.push_back("--untracked-files=no");
    if (!lookIntoSubmodules)
        arguments.push_back("--ignore-submodules=dirty");
    arguments.push_back("--");
    const auto specs = pathspecs(relative);
    arguments.insert(arguments.end(), specs.begin(), specs.end());
    return {.arguments = std::move(arguments)};
}

std::map<Path, FileState> Collector::collect() {
    const auto drivers = usable(FilterDrivers::read(m_git));
    drivers.checkSize();
    m_git.setOverrides(drivers.overrides);
    m_git.bePatient(drivers.ofUser);
    noteFolders("", true, false);
    askGit();
    if (!m_submodules.empty())
        askForSubmodules(drivers);
    addBeyondLinks();
    addVanished();
    if (!m_scope.includeUntracked)
        askForRemovedButPresent();
    addRenames();
    addUnverified(drivers);
    addUnreadable(m_warnings);
    addFolders();
    return std::move(m_states);
}

void Collector::askGit() {
    NulSplitter trackedSplitter("ls-files"), statusSplitter("status");
    GitRun tracked{.arguments = {"ls-files", "-z", "-s", "-v", "--full-name", "--"}};
    const auto specs = pathspecs(m_scope.paths);
    tracked.arguments.insert(tracked.arguments.end(), specs.begin(), specs.end());
    tracked.consume = [&](std::string_view text) {
        trackedSplitter.feed(text, [&](std::string_view record) { takeTracked(record); });
    };
    auto status = statusRun(m_scope.paths, false, m_scope.includeUntracked);
    status.errorsKept = 64U << 20U; // a line for each file in a folder that may not be entered
    // Status records are kept until all that is tracked is known: they change its states.
    std::string statusText;
    status.consume = [&](std::string_view text) {
        statusSplitter.feed(text, [&](std::string_view record) {
            if (!record.starts_with('#') && !PorcelainRecord::parse(record))
                throwBadRecord(record);
            statusText += record;
            statusText += '\0';
        });
    };
    const auto results = m_git.run({status, tracked});
    if (results[0].exitCode != 0)
        throwGitFailure(m_repository.root(), "status", results[0]);
    if (results[1].exitCode != 0)
        throwGitFailure(m_repository.root(), "ls-files", results[1]);
    if (!trackedSplitter.rest().empty() || !statusSplitter.rest().empty())
        throwGarbage("status");
    m_warnings = results[0].errors;
    NulSplitter("status").feed(statusText, [&](std::string_view record) { takeStatus(record); });
}

// "H 100644 <object> 0\t<path>": a tag, the mode, the object, the stage. Another tag than H is that
// of an entry that git takes for unmodified without a look (skip-worktree, assume-unchanged), or of
// one in conflict.
void Collector::takeTracked(std::string_view record) {
    const auto tab = record.find('\t');
    if (tab == std::string_view::npos || tab < 12 || record[1] != ' ')
        throwGarbage("ls-files");
    const auto path = record.substr(tab + 1);
    if (path == m_lastTracked) // another side of a conflict
        return;
    if (!isPossiblePath(path))
        throwDamagedIndex(m_repository.root(), impossibleName);
    m_lastTracked = path;
    if (const auto folder = parentOf(path); folder != m_lastTrackedFolder) {
        m_lastTrackedFolder = folder;
        m_lastNoted = &noteFolders(folder, true, false);
    }
    m_lastNoted->mustExist |= record.front() == isChecked;
    if (record.substr(2).starts_with(submoduleMode)) {
        m_submodules.emplace_back(path);
        const bool populated =
            ::faccessat(m_rootFolder.get(), (std::string(path) + "/.git").c_str(), F_OK, 0) == 0;
        m_states.emplace_hint(
            m_states.end(), pathOf(path),
            FileState(populated ? LocalStatus::External : LocalStatus::Unmodified, true));
        return;
    }
    m_states.emplace_hint(m_states.end(), pathOf(path), FileState(LocalStatus::Unmodified));
}

void Collector::takeStatus(std::string_view text) {
    if (text.starts_with('#'))
        return;
    const auto record = PorcelainRecord::parse(text);
    if (!record)
        throwBadRecord(text);
    take(*record);
}

void Collector::take(const PorcelainRecord& record) {
    const std::string path(record.path);
    if (m_scope.includeUntracked &&
        (record.kind == Kind::Untracked || record.kind == Kind::Ignored))
        noteFolders(parentOf(path), false, record.kind == Kind::Untracked).mustExist = true;
    if (record.kind == Kind::Changed) {
        // What is removed makes no folder a tracked one: git may call that ignored or untracked.
        if (record.columns[0] == 'D')
            m_removed.push_back(path);
        if (record.columns[0] == 'A')
            m_hasAdditions = true;
        if (record.columns[1] == 'M' || record.columns[1] == 'T')
            m_staleOnDisk.push_back(path);
    }

    const auto key = pathOf(path);
    const auto existing = m_states.find(key);
    if (existing != m_states.end() && existing->second.getState() == LocalStatus::Deleted) {
        // Removed from the index and still there: one path, two records of git's.
        const auto& state = existing->second;
        auto properties = state.getProperties();
        properties.emplace_back(property::columns, wide(record.columns));
        existing->second =
            FileState(state.getState(), state.isFolder() || record.endsWithSlash, properties);
        return;
    }
    const bool isFolder =
        record.endsWithSlash || (existing != m_states.end() && existing->second.isFolder());
    const std::string shape =
        std::string(record.columns) + (isFolder ? "/" : "") + (record.submoduleCommit ? "c" : "") +
        (record.submoduleModified ? "m" : "") + (record.submoduleUntracked ? "u" : "") +
        (record.kind == Kind::Unmerged ? "!" : "");
    auto state = m_plainStates.find(shape);
    if (state == m_plainStates.end()) {
        std::vector<FileProperty> properties{{property::columns, wide(record.columns)}};
        if (record.kind == Kind::Unmerged)
            properties.emplace_back(property::conflict, wide(conflictKind(record.columns)));
        std::string inside;
        for (const auto& [differs, word] : {std::pair{record.submoduleCommit, "commit"},
                                            std::pair{record.submoduleModified, "modified"},
                                            std::pair{record.submoduleUntracked, "untracked"}})
            if (differs)
                inside += (inside.empty() ? "" : ",") + std::string(word);
        if (!inside.empty())
            properties.emplace_back(property::submodule, wide(inside));
        state = m_plainStates
                    .emplace(shape, FileState(stateOf(record.kind, record.columns), isFolder,
                                              std::move(properties)))
                    .first;
    }
    const bool isNested = record.kind == Kind::Untracked && record.endsWithSlash &&
                          modeOf(path + "/.git").has_value();
    m_states.insert_or_assign(key, isNested ? withState(state->second, LocalStatus::External)
                                            : state->second);
}

Collector::Folder& Collector::noteFolders(std::string_view folder, bool tracked, bool untracked) {
    auto [found, isNew] = m_folders.try_emplace(std::string(folder));
    const bool adds =
        isNew || (tracked && !found->second.tracked) || (untracked && !found->second.untracked);
    found->second.tracked |= tracked;
    found->second.untracked |= untracked;
    auto& result = found->second;
    // What holds for a folder holds for those above it, so they were told when it was.
    if (adds && !folder.empty())
        noteFolders(parentOf(folder), tracked, untracked);
    return result;
}

// Everything that git asks a submodule it asks with GIT_DIR=.git: whoever owns it, and wherever its
// configuration says that its files are. The latter would lead git to submodules that nobody looked
// into, so such a submodule is not asked about.
FilterDrivers Collector::driversOfSubmodule(const std::string& relative, Visited& visited) {
    struct stat status;
    if (!modeOf(relative + "/.git") ||
        ::fstatat(m_rootFolder.get(), relative.c_str(), &status, 0) != 0 ||
        !visited.folders.emplace(status.st_dev, status.st_ino).second)
        return {};
    const std::string folder = m_repository.root() + "/" + relative;
    const std::string name = Path::fromNative(folder).toUtf8();
    if (++m_submodulesVisited > mostSubmodules)
        throw exception::OperationFailedError(name + ": too many submodules to look into");
    // Where git refuses the question it refuses to look inside as well.
    const auto ask = [&](std::vector<std::string> arguments) {
        std::optional<std::string> output = "";
        GitRun run{.arguments = std::move(arguments),
                   .folder = folder,
                   .asSubmodule = true,
                   .keepMetadata = true};
        run.consume = [&](std::string_view text) { *output += text; };
        constexpr int noneFound = 1;
        if (const auto result = m_git.run({run}).front(); result.exitCode > noneFound)
            output.reset();
        return output;
    };
    const auto top = ask({"rev-parse", "--show-toplevel"});
    if (!top)
        return {};
    if (const auto place = canonical(folder); !place || *top != *place + "\n")
        throw exception::OperationFailedError(name + " keeps its files elsewhere (core.worktree)");
    const auto configuration = ask(FilterDrivers::question()).value_or("");
    if (const auto unfit = findUnfitNamed(configuration, folder))
        throw exception::OperationFailedError(name + ": " + unfit->setting + " names " +
                                              Path::fromNative(unfit->file).toUtf8() + ", which " +
                                              unfit->why);
    auto drivers = usable(FilterDrivers::parse(configuration));
    visited.withoutClean.emplace_back(relative, drivers.withoutClean);
    std::vector<std::string> nested;
    NulSplitter("ls-files")
        .feed(ask({"ls-files", "-z", "-s"}).value_or(""), [&](std::string_view record) {
            const auto tab = record.find('\t');
            if (record.starts_with(submoduleMode) && tab != std::string_view::npos)
                nested.push_back(relative + "/" + std::string(record.substr(tab + 1)));
        });
    for (const auto& submodule : nested)
        drivers.add(driversOfSubmodule(submodule, visited));
    return drivers;
}

void Collector::addUnverifiedIn(
    const std::string& submodule,
    const std::vector<std::pair<std::string, std::set<std::string>>>& withoutClean) {
    std::set<std::string> filters;
    for (const auto& [folder, names] : withoutClean)
        for (const auto& one : findUnverified(names, folder))
            filters.insert(one.filter);
    if (filters.empty())
        return;
    const auto state = m_states.find(pathOf(submodule));
    const auto* columns = state->second.findProperty(property::columns);
    const auto* inside = state->second.findProperty(property::submodule);
    const auto isInside = [&](const char16_t* word) {
        return inside != nullptr && inside->find(word) != UString::npos;
    };
    take({.kind = Kind::Changed,
          .columns = std::string{columns ? static_cast<char>((*columns)[0]) : '.', 'M'},
          .submoduleCommit = isInside(u"commit"),
          .submoduleModified = true,
          .submoduleUntracked = isInside(u"untracked"),
          .path = submodule});
    for (const auto& filter : filters)
        state->second = withProperty(state->second, property::unverified, wide(filter));
}

// What the first answer said of it stays.
void Collector::refuse(const std::string& submodule,
                       const exception::SourceControlException& error) {
    auto& state = m_states.at(pathOf(submodule));
    const auto why = toUString(error.what());
    state = withProperty(withState(state, LocalStatus::Unknown), property::why, why);
    state = withProperty(state, property::refused, why);
}

void Collector::askForSubmodules(FilterDrivers drivers) {
    std::vector<std::string> asked;
    std::unordered_map<std::string, Visited> visitedFor;
    for (const auto& submodule : m_submodules) {
        try {
            Visited visited;
            const auto more = driversOfSubmodule(submodule, visited);
            auto all = drivers;
            all.add(more);
            all.checkSize();
            drivers = std::move(all);
            visitedFor[submodule] = std::move(visited);
            asked.push_back(submodule);
        } catch (const exception::OperationCancelledError&) {
            throw;
        } catch (const exception::SourceControlException& error) {
            refuse(submodule, error);
        }
    }
    m_git.setOverrides(drivers.overrides);

    const auto ask = [&](const std::vector<std::string>& submodules) {
        std::vector<std::string> records;
        // An untracked file in a submodule changes the state of the submodule, whatever was asked
        // for.
        auto run = statusRun(submodules, true, true);
        run.keepMetadata = true;
        const auto output = m_git.read(std::move(run));
        NulSplitter("status").feed(output,
                                   [&](std::string_view record) { records.emplace_back(record); });
        std::unordered_set<std::string> wanted(submodules.begin(), submodules.end());
        // What the first answer said of them was said without looking inside.
        for (const auto& submodule : submodules) {
            auto& state = m_states.at(pathOf(submodule));
            if (!state.getProperties().empty())
                state = FileState(modeOf(submodule + "/.git") ? LocalStatus::External
                                                              : LocalStatus::Unmodified,
                                  true);
        }
        for (const auto& record : records) {
            const auto parsed = PorcelainRecord::parse(record);
            if (!parsed)
                throwBadRecord(record);
            const std::string submodule(parsed->path);
            if (!wanted.contains(submodule))
                continue;
            take(*parsed);
        }
        for (const auto& submodule : submodules)
            addUnverifiedIn(submodule, visitedFor[submodule].withoutClean);
    };
    for (std::size_t start = 0; start < asked.size(); start += submodulesAtOnce) {
        const std::vector<std::string> some(
            asked.begin() + static_cast<std::ptrdiff_t>(start),
            asked.begin() +
                static_cast<std::ptrdiff_t>(std::min(asked.size(), start + submodulesAtOnce)));
        try {
            ask(some);
        } catch (const exception::OperationCancelledError&) {
            throw;
        } catch (const exception::SourceControlException&) {
            // One that cannot be read fails git for all of them.
            for (const auto& submodule : some) {
                try {
                    ask({submodule});
                } catch (const exception::OperationCancelledError&) {
                    throw;
                } catch (const exception::SourceControlException& error) {
                    refuse(submodule, error);
                }
            }
        }
    }
}

// Without untracked files git does not say that a removed path is still there, but the path's state
// must not depend on that.
void Collector::askForRemovedButPresent() {
    std::vector<std::string> present;
    for (const auto& path : m_removed)
        if (modeOf(path))
            present.push_back(path);
    for (std::size_t start = 0; start < present.size(); start += mostPathspecs) {
        const std::vector<std::string> some(
            present.begin() + static_cast<std::ptrdiff_t>(start),
            present.begin() +
                static_cast<std::ptrdiff_t>(std::min(present.size(), start + mostPathspecs)));
        const auto output = m_git.read(statusRun(some, false, true));
        NulSplitter("status").feed(output, [&](std::string_view text) {
            const auto record = PorcelainRecord::parse(text);
            if (record && (record->kind == Kind::Untracked || record->kind == Kind::Ignored) &&
                std::ranges::find(some, record->path) != some.end())
                take(*record);
        });
    }
}

void Collector::addRenames() {
    if (!m_hasAdditions || (m_scope.paths.empty() && m_removed.empty()))
        return;
    // Never narrowed to the scope: where an addition came from may lie outside it.
    std::vector<std::string> parts;
    GitRun run{.arguments = {"diff-index", "--cached", "-z", "-M", renameLimit, "--diff-filter=R",
                             "HEAD", "--"}};
    NulSplitter splitter("diff-index");
    run.consume = [&](std::string_view text) {
        splitter.feed(text, [&](std::string_view part) { parts.emplace_back(part); });
    };
    // Content that a partial clone lacks, or a HEAD without a commit, leaves renames unknown.
    if (m_git.run({run}).front().exitCode != 0)
        return;
    for (std::size_t i = 0; i + 2 < parts.size(); i += 3) {
        const auto found = m_states.find(pathOf(parts[i + 2]));
        if (found != m_states.end() && !found->second.getProperties().empty())
            found->second = withProperty(found->second, property::renamedFrom,
                                         Path::fromNative(parts[i + 1]).string());
    }
}

// Without a file's filter, git compares the bytes on the disk with filtered bytes in the index.
// Whether these are equal says nothing about the content. A file whose size and times the index
// knows is not compared, and is unmodified.
std::vector<Collector::Unverified>
Collector::findUnverified(const std::set<std::string>& withoutClean, const std::string& submodule) {
    if (withoutClean.empty())
        return {};
    const auto ask = [&](std::vector<std::string> arguments, std::string input = {}) {
        GitRun run{.arguments = std::move(arguments), .input = std::move(input)};
        if (!submodule.empty()) {
            run.folder = m_repository.root() + "/" + submodule;
            run.asSubmodule = run.keepMetadata = true;
        }
        return m_git.read(std::move(run));
    };
    const auto askInScope = [&](std::vector<std::string> arguments) {
        arguments.emplace_back("--");
        if (submodule.empty())
            std::ranges::copy(pathspecs(m_scope.paths), std::back_inserter(arguments));
        return ask(std::move(arguments));
    };
    const auto statusOf = [&](const std::string& path) {
        struct stat status {};
        const auto name = submodule.empty() ? path : submodule + "/" + path;
        ::fstatat(m_rootFolder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW);
        return status;
    };
    std::set<std::string> compared;
    NulSplitter("diff-files")
        .feed(askInScope({"diff-files", "-z", "--name-only", "--ignore-submodules=all"}),
              [&](std::string_view path) {
                  if (S_ISREG(statusOf(std::string(path)).st_mode))
                      compared.emplace(path);
              });
    // git also compares a file that is not older than the index: it may have been written twice
    // within the resolution of its time.
    auto index = m_repository.gitDir() + "/index";
    if (!submodule.empty()) {
        index = withoutLineEnds(ask({"rev-parse", "--git-path", "index"}));
        if (!index.starts_with('/'))
            index = m_repository.root() + "/" + submodule + "/" + index;
    }
    struct stat indexStatus {};
    ::stat(index.c_str(), &indexStatus);
    NulSplitter("ls-files")
        .feed(askInScope({"ls-files", "-z", "-s", "-v", "--full-name"}),
              [&](std::string_view record) {
                  const auto tab = record.find('\t');
                  if (tab == std::string_view::npos || record.front() != isChecked)
                      return;
                  std::string path(record.substr(tab + 1));
                  const auto status = statusOf(path);
                  if (S_ISREG(status.st_mode) &&
                      status.st_mtim.tv_sec >= indexStatus.st_mtim.tv_sec)
                      compared.insert(std::move(path));
              });
    if (compared.empty())
        return {};

    std::string input;
    std::unordered_map<std::string, std::string> pathOfSpec;
    for (const auto& path : compared) {
        const auto spec = submodule.empty() ? pathspecs({path}).front() : path;
        pathOfSpec.emplace(spec, path);
        input.append(spec).push_back('\0');
    }
    std::vector<std::string> parts;
    NulSplitter("check-attr")
        .feed(ask({"check-attr", "-z", "--stdin", "filter"}, std::move(input)),
              [&](std::string_view part) { parts.emplace_back(part); });
    std::vector<Unverified> result;
    for (std::size_t i = 0; i + 2 < parts.size(); i += 3)
        if (const auto path = pathOfSpec.find(parts[i]);
            path != pathOfSpec.end() && withoutClean.contains(parts[i + 2]))
            result.push_back({path->second, parts[i + 2]});
    return result;
}

void Collector::addUnverified(const FilterDrivers& drivers) {
    for (const auto& [path, filter] : findUnverified(drivers.withoutClean, "")) {
        const auto found = m_states.find(pathOf(path));
        if (found == m_states.end() || found->second.getState() == LocalStatus::Conflicted)
            continue;
        const auto* columns = found->second.findProperty(property::columns);
        if (columns == nullptr || (*columns)[1] == u'.')
            take({.kind = Kind::Changed,
                  .columns = std::string{columns ? static_cast<char>((*columns)[0]) : '.', 'M'},
                  .path = path});
        found->second = withProperty(found->second, property::unverified, wide(filter));
    }
}

void Collector::addUnreadable(const std::string& errors) {
    // git answers for a file that it cannot read as if it were changed.
    for (const auto& path : m_staleOnDisk) {
        const auto mode = modeOf(path);
        if (mode && S_ISREG(*mode) &&
            ::faccessat(m_rootFolder.get(), path.c_str(), R_OK, AT_EACCESS) != 0 &&
            !hasVanished(errno)) {
            auto& state = m_states.at(pathOf(path));
            state = withProperty(withState(state, LocalStatus::Unknown), property::why,
                                 whyUnreadable(errno));
        }
    }
    // An untracked folder that it cannot list is named in a warning and nowhere else.
    constexpr std::string_view start = "warning: could not open directory '";
    constexpr std::string_view end = "/': Permission denied\n";
    for (auto at = errors.find(start); at != std::string::npos; at = errors.find(start, at)) {
        at += start.size();
        const auto until = errors.find(end, at);
        if (until == std::string::npos)
            return;
        noteFolders(errors.substr(at, until - at), false, true);
    }
}

Collector::Way Collector::wayTo(const std::string& folder) {
    if (const auto known = m_ways.find(folder); known != m_ways.end())
        return known->second;
    auto way = wayTo(std::string(parentOf(folder)));
    if (way == Way::Folders) {
        const auto mode = modeOf(folder);
        way = mode && S_ISDIR(*mode)   ? Way::Folders
              : mode && S_ISLNK(*mode) ? Way::Link
                                       : Way::Nothing;
    }
    return m_ways[folder] = way;
}

// Where a link has taken a folder's place, git says that the files in it are missing, whatever the
// link leads to: unless looking there fails, because it leads in a circle or to a folder that may
// not be entered. Then it warns and takes the file for unchanged. What is said must not depend on
// what lies elsewhere, for nobody would tell when that changes.
void Collector::addBeyondLinks() {
    if (m_warnings.empty())
        return;
    const auto lines = "\n" + m_warnings;
    for (const auto& [folder, content] : m_folders) {
        if (!content.tracked || wayTo(folder) != Way::Link)
            continue;
        const auto key = pathOf(folder);
        std::size_t at = 0; // the warnings come in order, nearly
        for (auto it = m_states.upper_bound(key);
             it != m_states.end() && it->first.string().starts_with(key.string()); ++it) {
            const auto status = it->second.getState();
            if (it->first.parentPath() != key || status == LocalStatus::Missing ||
                status == LocalStatus::Conflicted)
                continue;
            const auto path = m_repository.relative(it->first).value();
            const auto line = "\n" + path + ": ";
            auto found = lines.find(line, at);
            if (found == std::string::npos)
                found = lines.find(line);
            if (found == std::string::npos)
                continue;
            at = found;
            takeMissing(path);
        }
    }
}

void Collector::takeMissing(const std::string& path) {
    const auto* columns = m_states.at(pathOf(path)).findProperty(property::columns);
    const char staged = columns != nullptr ? static_cast<char>(columns->front()) : '.';
    take({.kind = Kind::Changed, .columns = std::string{staged, 'D'}, .path = path});
}

// A folder may be deleted after git has listed it. What is tracked there is missing then, and the
// rest has no state.
void Collector::addVanished() {
    for (const auto& [folder, content] : m_folders) {
        if (!content.mustExist || wayTo(folder) != Way::Nothing)
            continue;
        const auto key = pathOf(folder);
        std::vector<std::string> suspects;
        for (auto it = m_states.upper_bound(key);
             it != m_states.end() && it->first.string().starts_with(key.string());) {
            const auto state = it->second.getState();
            const auto found = it++;
            if (found->first.parentPath() != key)
                continue;
            if (state == LocalStatus::NotUnderSourceControl || state == LocalStatus::Ignored)
                m_states.erase(found);
            else if (state != LocalStatus::Missing && state != LocalStatus::Deleted &&
                     state != LocalStatus::Conflicted)
                suspects.push_back(m_repository.relative(found->first).value());
        }
        // Some may be entries that need not exist, as in a sparse checkout.
        if (suspects.empty())
            continue;
        const std::unordered_set<std::string> wanted(suspects.begin(), suspects.end());
        GitRun run{.arguments = {"ls-files", "-z", "-v", "--full-name", "--"}};
        run.arguments.push_back(pathspecs({folder}).front());
        NulSplitter("ls-files").feed(m_git.read(run), [&](std::string_view record) {
            const std::string path(record.substr(std::min<std::size_t>(2, record.size())));
            if (record.starts_with(isChecked) && wanted.contains(path))
                takeMissing(path);
        });
    }
}

void Collector::throwBadRecord(std::string_view record) const {
    if (PorcelainRecord::namesImpossiblePath(record))
        throwDamagedIndex(m_repository.root(), impossibleName);
    throwGarbage("status");
}

void Collector::addFolders() {
    std::vector<std::string> closed; // files in them cannot be looked at
    for (const auto& [folder, content] : m_folders) {
        if (wayTo(folder) != Way::Folders)
            continue;
        const char* name = folder.empty() ? "." : folder.c_str();
        const auto key = pathOf(folder);
        if (::faccessat(m_rootFolder.get(), name, R_OK | X_OK, AT_EACCESS) == 0) {
            m_states.try_emplace(key,
                                 content.tracked     ? LocalStatus::Unmodified
                                 : content.untracked ? LocalStatus::NotUnderSourceControl
                                                     : LocalStatus::Ignored,
                                 true);
        } else if (!hasVanished(errno)) {
            m_states.try_emplace(key, unknown(true, whyUnreadable(errno)));
            if (::faccessat(m_rootFolder.get(), name, X_OK, AT_EACCESS) != 0)
                closed.push_back(folder);
        }
    }
    for (const auto& folder : closed) {
        const auto key = pathOf(folder);
        for (auto it = m_states.upper_bound(key);
             it != m_states.end() && it->first.string().starts_with(key.string()); ++it)
            if (it->first.isBelow(key) && it->second.getState() != LocalStatus::Unknown)
                it->second = withProperty(withState(it->second, LocalStatus::Unknown),
                                          property::why, whyUnreadable(EACCES));
    }
}

std::map<Path, FileState> collectSteadily(GitRunner& git, const Scope& scope) {
    for (int attempt = 1;; ++attempt) {
        git.repository().checkMetadataFiles();
        const auto before = git.repository().stamp();
        auto states = Collector(git, scope).collect();
        if (attempt == attempts || git.repository().stamp() == before)
            return states;
    }
}

// "Pathspec '<path>' is in submodule '<submodule>'": of one that is not checked out, or this would
// have been found on the disk.
bool isInSubmodule(const std::string& refusal) {
    return refusal.find("' is in submodule '") != std::string::npos;
}

/// How a path that was asked for lies in the working copy.
enum class Place { Inside, InOtherWorkingCopy, BeyondLink };

} // namespace

std::map<Path, FileState> GitStatus::ofFolder(const Path& folder, bool includeUntracked) {
    if (includeUntracked)
        return ofPaths({folder});
    const auto relative = m_git.repository().relative(folder);
    if (!relative)
        return {};
    Scope scope{.paths = {}, .includeUntracked = false};
    if (!relative->empty())
        scope.paths.push_back(*relative);
    auto states = collectSteadily(m_git, scope);
    if (!relative->empty()) {
        const IsChildFolderQuery isWanted({m_git.repository().rootPath().child(*relative)});
        std::erase_if(states, [&](const auto& entry) { return !isWanted.isChild(entry.first); });
    }
    return states;
}

std::map<Path, FileState> GitStatus::ofPaths(const std::vector<Path>& paths) {
    const auto& repository = m_git.repository();
    const Scope everything;
    const Collector disk(m_git, everything);

    std::unordered_map<std::string, Place> folders{{"", Place::Inside}};
    const auto placeOf = [&](const std::string& folder, const auto& self) -> Place {
        if (const auto known = folders.find(folder); known != folders.end())
            return known->second;
        auto place = self(std::string(parentOf(folder)), self);
        if (place == Place::Inside) {
            const auto mode = disk.modeOf(folder);
            if (mode && S_ISLNK(*mode))
                place = Place::BeyondLink;
            else if (mode && disk.modeOf(folder + "/.git"))
                place = Place::InOtherWorkingCopy;
        }
        return folders.emplace(folder, place).first->second;
    };

    std::vector<std::string> asked;
    std::vector<Path> askedPaths;
    for (const auto& path : paths) {
        if (auto relative = repository.relative(path)) {
            askedPaths.push_back(relative->empty() ? repository.rootPath()
                                                   : repository.rootPath().child(*relative));
            asked.push_back(std::move(*relative));
        }
    }
    if (asked.empty())
        return {};
    const bool isWhole = std::ranges::find(asked, std::string()) != asked.end();

    Scope scope;
    std::size_t bytes = 0;
    for (const auto& path : asked)
        bytes += path.size() + 1;
    if (!isWhole) {
        if (asked.size() <= mostPathspecs && bytes <= mostPathspecBytes) {
            scope.paths = asked;
        } else {
            // One folder around all of them.
            std::string common = asked.front();
            for (const auto& path : asked)
                while (path != common &&
                       !(path.starts_with(common) && path[common.size()] == '/') && !common.empty())
                    common = parentOf(common);
            if (!common.empty())
                scope.paths.push_back(common);
        }
    }
    auto states = collectSteadily(m_git, scope);
    const IsChildFolderQuery isWanted(askedPaths);

    // What git has nothing to say about, or only something about a folder above. A path that is
    // tracked has been answered for, also when another working copy or a link stands above it now.
    std::map<Path, FileState> answer;
    std::vector<std::size_t> unsaid;
    for (std::size_t i = 0; i < asked.size(); ++i) {
        const auto& key = askedPaths[i];
        const auto mode = states.contains(key) ? std::nullopt : disk.modeOf(asked[i]);
        // A FIFO, a socket or a device is nothing to git, so no query for a folder lists it.
        if (!mode || !(S_ISDIR(*mode) || S_ISREG(*mode) || S_ISLNK(*mode)))
            continue;
        const auto place = placeOf(std::string(parentOf(asked[i])), placeOf);
        bool isIgnored = false;
        for (auto folder = key.parentPath(); !isIgnored && folder.isBelow(repository.rootPath());
             folder = folder.parentPath()) {
            const auto found = states.find(folder);
            isIgnored = found != states.end() && !found->second.getProperties().empty() &&
                        found->second.getState() == LocalStatus::Ignored;
        }
        if (place == Place::InOtherWorkingCopy)
            answer.insert_or_assign(key, FileState(LocalStatus::External, S_ISDIR(*mode)));
        else if (place == Place::BeyondLink)
            answer.insert_or_assign(key, unknown(S_ISDIR(*mode), u"lies beyond a symbolic link"));
        else if (isIgnored)
            answer.insert_or_assign(key, FileState(LocalStatus::Ignored, S_ISDIR(*mode)));
        else
            unsaid.push_back(i);
    }
    std::vector<std::string> names;
    for (const auto i : unsaid)
        names.push_back(asked[i]);
    const auto rules = queryIgnored(m_git, names, true);
    for (const auto i : unsaid) {
        const auto mode = disk.modeOf(asked[i]);
        if (!mode)
            continue;
        const bool isFolder = S_ISDIR(*mode);
        auto state =
            FileState(rules.ignored.contains(asked[i]) ? LocalStatus::Ignored
                                                       : LocalStatus::NotUnderSourceControl,
                      isFolder);
        if (const auto refused = rules.refused.find(asked[i]); refused != rules.refused.end())
            state = isInSubmodule(refused->second) ? FileState(LocalStatus::External, isFolder)
                                                   : unknown(isFolder, wide(refused->second));
        answer.insert_or_assign(askedPaths[i], std::move(state));
    }

    if (isWhole) {
        states.merge(answer);
        return states;
    }
    for (auto it = states.begin(); it != states.end();) {
        auto entry = states.extract(it++);
        if (isWanted.isChild(entry.key()))
            answer.insert(std::move(entry));
    }
    return answer;
}

} // namespace quendo::git
