#include "quendo/git/GitActions.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/git/GitActor.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitText.h"
#include "quendo/git/IgnoreQuery.h"
#include "quendo/git/IgnoreRules.h"
#include "quendo/git/KeptFiles.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SmallFile.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sstream>
#include <strings.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unordered_set>

namespace quendo::git {
namespace {

using exception::OperationFailedError;
using Strings = std::vector<std::string>;

constexpr std::size_t largestWithMarkers = 64U << 20U;
constexpr std::size_t largestHead = 64U << 10U;
constexpr std::size_t mostArguments = 64; // beyond, everything is listed and the rest left out
// git's commands for people compare each path given with each entry of the index. Beyond this many,
// others do the same.
constexpr std::size_t mostPathspecs = 1000;

bool isBlank(const UString& text) {
    return text.find_first_not_of(std::u16string_view(u" \t\r\n")) == UString::npos;
}

} // namespace

GitActions::GitActions(GitRunner& git, GitActor& actor)
    : m_git(git), m_actor(actor), m_repository(git.repository()), m_tree(git), m_index(git, actor) {
}

// What failed may have written the index; so may another git that ran beside it, and what that did
// must stay. When the entries are not those that this operation left, its own alone are put back.
void GitActions::undoInIndex(KeptFiles& kept) {
    GitIndex::Entries noted, now;
    const bool isOurs = kept.noteIndexIf([&](const auto& notedFile, const auto& nowFile) {
        noted = m_index.ofFile(notedFile);
        now = m_index.ofFile(nowFile);
        return noted == now;
    });
    if (isOurs || (noted.empty() && now.empty()))
        return;
    const auto before = m_index.ofFile(kept.indexFile());
    const auto entryIn = [](const GitIndex::Entries& entries, const std::string& path) {
        const auto found = entries.find(path);
        return found == entries.end() ? std::string() : found->second;
    };
    GitIndex::Entries back;
    Strings forgotten;
    for (const auto& [path, entry] : before)
        if (entryIn(noted, path) != entry && entryIn(now, path) == entryIn(noted, path))
            back.emplace(path, entry);
    for (const auto& [path, entry] : noted)
        if (!before.contains(path) && entryIn(now, path) == entry)
            forgotten.push_back(path);
    m_index.put(back, forgotten);
    kept.leaveIndex();
}

// Does it whole, or puts back what `kept` keeps.
template <class Work>
void GitActions::orAsItWas(KeptFiles& kept, Work&& work) {
    try {
        work();
    } catch (const std::exception& error) {
        std::string problem;
        try {
            m_git.ignoreCancellation();
            m_actor.ignoreCancellation();
            if (kept.hasOtherIndex()) {
                m_actor.waitForIndex();
                undoInIndex(kept);
            }
        } catch (const std::exception& other) {
            problem = other.what();
        }
        const auto rest = kept.restore();
        problem += (problem.empty() || rest.empty() ? "" : "; ") + rest;
        if (problem.empty())
            throw;
        throw OperationFailedError(std::string(error.what()) + "; after that, " + problem);
    }
}

void GitActions::add(const std::vector<Path>& given) {
    Strings paths;
    for (auto& path : m_tree.relative(given)) {
        const auto mode = m_tree.modeOf(path);
        if (!mode)
            throw OperationFailedError(m_tree.shown(path) + " does not exist");
        // Git keeps files only: a folder is there with the first of them.
        if (!S_ISDIR(*mode))
            paths.push_back(std::move(path));
    }
    if (paths.empty())
        return;
    m_tree.refuseOthers(paths);

    const auto answer = queryIgnored(m_git, paths, false);
    if (!answer.refused.empty()) {
        const auto& [path, words] = *answer.refused.begin();
        throw OperationFailedError(m_tree.shown(path) + " cannot be added: " + words);
    }
    Strings refused(answer.ignored.begin(), answer.ignored.end());
    if (!refused.empty()) {
        // What is tracked is not ignored, whatever the rules say.
        std::unordered_set<std::string> tracked;
        NulSplitter("ls-files")
            .feed(m_git.read({.arguments = {"ls-files", "-z", "--full-name"}}),
                  [&](std::string_view path) { tracked.emplace(path); });
        std::erase_if(refused, [&](const auto& path) { return tracked.contains(path); });
        std::ranges::sort(refused);
    }
    if (!refused.empty())
        throw OperationFailedError("ignored by Git: " + m_tree.shown(refused) +
                                   "; change the ignore rules first, or run git add --force");
    NulSplitter("ls-files")
        .feed(m_git.read({.arguments = {"ls-files", "-u", "-z", "--full-name"}}),
              [&](std::string_view record) {
                  const std::string path(
                      record.substr(std::min(record.find('\t') + 1, record.size())));
                  if (std::ranges::binary_search(paths, path))
                      refused.push_back(path);
              });
    refused.erase(std::ranges::unique(refused).begin(), refused.end());
    if (!refused.empty())
        throw OperationFailedError("in conflict: " + m_tree.shown(refused) +
                                   "; edit and resolve first");
    m_index.stage(paths);
}

bool GitActions::isInConflictSides(const std::string& path) {
    Strings sides;
    NulSplitter("ls-files")
        .feed(m_git.read({.arguments = {"ls-files", "-u", "-z", "--", m_index.nameOf(path)}}),
              [&](std::string_view record) {
                  const auto object = record.find(' ') + 1;
                  sides.emplace_back(record.substr(object, record.find(' ', object) - object));
              });
    const auto content =
        withoutLineEnds(m_git.read({.arguments = {"hash-object", "--", m_index.nameOf(path)}}));
    return std::ranges::find(sides, content) != sides.end();
}

void GitActions::remove(const std::vector<Path>& given) {
    if (given.empty())
        return;
    const auto names = m_tree.relative(given);
    m_tree.refuseOthers(names);
    const auto items = m_tree.look(given);
    Strings entries, onDisk, untracked, others, unique, unknown;
    Strings found;
    for (const auto& item : items)
        found.push_back(item.path);
    const auto folders = parentsOf(found);
    const std::unordered_set<std::string> files(found.begin(), found.end());
    for (const auto& name : names)
        if (name.empty() ? items.empty() : !files.contains(name) && !folders.contains(name))
            untracked.push_back(name);
    for (const auto& item : items) {
        switch (item.state) {
        case LocalStatus::NotUnderSourceControl:
        case LocalStatus::Ignored:
            if (item.isNamed)
                untracked.push_back(item.path);
            continue;
        case LocalStatus::Deleted:
            continue;
        case LocalStatus::External:
            others.push_back(item.path);
            continue;
        case LocalStatus::Unknown:
            unknown.push_back(item.path);
            continue;
        case LocalStatus::Added:
        case LocalStatus::Modified:
            unique.push_back(item.path);
            continue;
        case LocalStatus::Conflicted:
            if (m_tree.modeOf(item.path) && !isInConflictSides(item.path)) {
                unique.push_back(item.path);
                continue;
            }
            break;
        case LocalStatus::Missing:
            if (item.staged == 'A' || item.staged == 'M') {
                // Only the index has it.
                unique.push_back(item.path);
                continue;
            }
            entries.push_back(item.path);
            continue;
        case LocalStatus::Unmodified:
            if (item.isFolder)
                continue;
            break;
        }
        entries.push_back(item.path);
        if (m_tree.modeOf(item.path))
            onDisk.push_back(item.path);
    }
    if (!untracked.empty())
        throw OperationFailedError("not under source control: " + m_tree.shown(untracked));
    if (!others.empty())
        throw OperationFailedError("working copies of their own: " + m_tree.shown(others) +
                                   "; remove them with git itself");
    if (!unknown.empty())
        throw OperationFailedError("cannot be read: " + m_tree.shown(unknown));
    if (!unique.empty())
        throw OperationFailedError("what these hold exists nowhere else: " + m_tree.shown(unique) +
                                   "; check it in or give it up first, then remove them");
    if (entries.empty())
        return;
    m_tree.refuseReadOnly(onDisk);

    m_actor.waitForIndex();
    KeptFiles kept(m_repository);
    kept.keep(onDisk);
    orAsItWas(kept, [&] {
        m_index.forget(entries);
        kept.noteIndex();
        deleteFiles(onDisk);
    });
    m_tree.dropEmptyFolders(onDisk);
}

void GitActions::deleteFiles(const Strings& paths) const {
    for (const auto& path : paths)
        if (::unlinkat(m_tree.root(), path.c_str(), 0) != 0 && errno != ENOENT)
            throw OperationFailedError(m_tree.shown(path) +
                                       " cannot be deleted: " + std::strerror(errno));
}

void GitActions::move(const Path& source, const Path& destination) {
    const auto from = m_tree.relative(source), to = m_tree.relative(destination);
    if (from.empty() || to.empty())
        throw OperationFailedError(m_repository.rootPath().toUtf8() +
                                   " is the working copy's root and cannot be moved");
    if (from == to)
        return;
    if (to.starts_with(from + "/"))
        throw OperationFailedError(m_tree.shown(from) + " cannot be moved into itself");
    m_tree.refuseOthers({from, to});
    const auto items = m_tree.look({source});
    const bool isTracked = std::ranges::any_of(items, [](const TreeItem& item) {
        return item.state != LocalStatus::NotUnderSourceControl &&
               item.state != LocalStatus::Ignored && item.state != LocalStatus::Deleted &&
               !(item.isFolder && item.state == LocalStatus::Unmodified);
    });
    if (!isTracked && (items.empty() || items.front().state != LocalStatus::External))
        throw OperationFailedError(m_tree.shown(from) +
                                   " is not under source control, so there is nothing for Git to "
                                   "move");
    for (const auto& item : items)
        if (item.state == LocalStatus::Conflicted)
            throw OperationFailedError(m_tree.shown(item.path) +
                                       " is in conflict; resolve it before it is moved");
    const auto sourceMode = m_tree.modeOf(from), destinationMode = m_tree.modeOf(to);
    if (!sourceMode) {
        if (!destinationMode)
            throw OperationFailedError(m_tree.shown(from) + " and " + m_tree.shown(to) +
                                       " do not exist, so nothing has been moved");
        const auto there = m_tree.look({destination});
        for (const auto& item : there)
            if (item.state != LocalStatus::NotUnderSourceControl && !item.isFolder)
                throw OperationFailedError(m_tree.shown(item.path) +
                                           (item.state == LocalStatus::Ignored
                                                ? " is ignored by Git"
                                                : " is under source control already"));
        m_index.rename(from, to);
        return;
    }
    if (destinationMode) {
        // A file system that knows no case has one file under both names.
        struct stat one {
        }, other{};
        const bool isSame =
            ::fstatat(m_tree.root(), from.c_str(), &one, AT_SYMLINK_NOFOLLOW) == 0 &&
            ::fstatat(m_tree.root(), to.c_str(), &other, AT_SYMLINK_NOFOLLOW) == 0 &&
            one.st_ino == other.st_ino && one.st_dev == other.st_dev &&
            ::strcasecmp(from.c_str(), to.c_str()) == 0;
        if (!isSame)
            throw OperationFailedError(m_tree.shown(to) + " exists already");
    }
    moveOnDisk(from, to);
}

void GitActions::moveOnDisk(const std::string& from, const std::string& to) {
    Strings missing; // folders to be made, the outermost first
    for (const auto& folder : parentsOf({to}))
        if (const auto mode = m_tree.modeOf(folder); !mode)
            missing.push_back(folder);
        else if (!S_ISDIR(*mode))
            throw OperationFailedError(m_tree.shown(folder) + " is not a folder");
    m_tree.refuseReadOnly({from, to});
    const auto undo = [&] {
        struct stat status {};
        if (::fstatat(m_tree.root(), from.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            ::renameat2(m_tree.root(), to.c_str(), m_tree.root(), from.c_str(), RENAME_NOREPLACE);
        for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder)
            ::unlinkat(m_tree.root(), folder->c_str(), AT_REMOVEDIR);
    };
    m_actor.waitForIndex();
    KeptFiles kept(m_repository);
    orAsItWas(kept, [&] {
        try {
            for (const auto& folder : missing)
                if (::mkdirat(m_tree.root(), folder.c_str(), 0777) != 0 && errno != EEXIST)
                    throw OperationFailedError(m_tree.shown(folder) +
                                               " cannot be made: " + std::strerror(errno));
            m_actor.run({.arguments = {"mv", "--", m_index.nameOf(from), m_index.nameOf(to)}});
        } catch (...) {
            undo();
            throw;
        }
    });
}

GitActions::Reversion GitActions::planReversion(const std::vector<TreeItem>& items) {
    Reversion plan;
    Strings staged, untracked, unknown, others;
    for (const auto& item : items) {
        switch (item.state) {
        case LocalStatus::Unmodified:
            continue;
        case LocalStatus::NotUnderSourceControl:
        case LocalStatus::Ignored:
            if (item.isNamed && !item.isFolder)
                untracked.push_back(item.path);
            continue;
        case LocalStatus::External:
            if (item.staged != '.')
                staged.push_back(item.path);
            else if (item.isNamed)
                others.push_back(item.path);
            continue;
        case LocalStatus::Unknown:
            unknown.push_back(item.path);
            continue;
        case LocalStatus::Added:
            staged.push_back(item.path);
            continue;
        case LocalStatus::Deleted:
            // What lies there now is not under source control: it stays.
            staged.push_back(item.path);
            if (!item.isUntrackedToo)
                plan.toWrite.push_back(item.path);
            continue;
        case LocalStatus::Conflicted:
            staged.push_back(item.path);
            plan.toWrite.push_back(item.path);
            continue;
        case LocalStatus::Modified:
        case LocalStatus::Missing:
            if (item.isFolder) { // a submodule: its files are left alone
                if (item.staged != '.')
                    staged.push_back(item.path);
                continue;
            }
            if (item.staged != '.')
                staged.push_back(item.path);
            plan.toWrite.push_back(item.path);
            continue;
        }
    }
    if (!untracked.empty())
        throw OperationFailedError("not under source control: " + m_tree.shown(untracked) +
                                   "; there is nothing to go back to");
    if (!others.empty())
        throw OperationFailedError("working copies of their own: " + m_tree.shown(others) +
                                   "; work on them there");
    if (!unknown.empty())
        throw OperationFailedError("cannot be read: " + m_tree.shown(unknown));
    if (staged.empty())
        return plan;
    plan.toReset = m_index.ofHead(staged);
    for (const auto& path : staged)
        if (!plan.toReset.contains(path))
            plan.toForget.push_back(path);
    // Only a side of a conflict that HEAD does not have: what is on disk stays, untracked.
    const std::unordered_set<std::string> forgotten(plan.toForget.begin(), plan.toForget.end());
    std::erase_if(plan.toWrite, [&](const auto& path) { return forgotten.contains(path); });
    return plan;
}

void GitActions::revert(const Reversion& plan) {
    if (plan.toWrite.empty() && plan.toReset.empty() && plan.toForget.empty())
        return;
    // A file to be deleted may stand where a folder is to be written: then obstacles are looked for
    // after the deletion.
    if (plan.toDelete.empty())
        m_tree.refuseObstacles(plan.toWrite);
    m_tree.refuseReadOnly(plan.toWrite);
    m_tree.refuseReadOnly(plan.toDelete);
    m_actor.waitForIndex();
    KeptFiles kept(m_repository);
    kept.keep(plan.toWrite);
    kept.keep(plan.toDelete);
    orAsItWas(kept, [&] {
        if (!plan.toReset.empty() || !plan.toForget.empty()) {
            m_index.put(plan.toReset, plan.toForget);
            kept.noteIndex();
        }
        if (!plan.toDelete.empty()) {
            deleteFiles(plan.toDelete);
            m_tree.dropEmptyFolders(plan.toDelete);
            m_tree.refuseObstacles(plan.toWrite);
        }
        if (plan.toWrite.size() > mostPathspecs)
            m_index.writeOut(plan.toWrite);
        else if (!plan.toWrite.empty())
            m_actor.run(
                {.arguments = {"restore", "--progress", "--no-recurse-submodules", "--worktree",
                               "--pathspec-from-file=-", "--pathspec-file-nul"},
                 .input = pathspecsOf(plan.toWrite)});
    });
}

void GitActions::revert(const std::vector<Path>& given) {
    if (given.empty())
        return;
    m_tree.refuseOthers(m_tree.relative(given));
    revert(planReversion(m_tree.look(given)));
}

// An operation that stopped has put files into the index and on the disk that HEAD does not have.
// Left behind untracked, they would be in the way when it is aborted, continued or tried again: git
// overwrites no untracked file. What the user added is not touched.
Strings GitActions::broughtByOperation(const std::vector<TreeItem>& items, const Strings& added) {
    if (added.empty())
        return {};
    const auto& gitDir = m_repository.gitDir();
    const auto isThere = [&](const char* name) {
        return ::access((gitDir + "/" + name).c_str(), F_OK) == 0;
    };
    const bool isRebase = isThere("rebase-merge") || isThere("rebase-apply");
    Strings trees;
    for (const char* name : {"MERGE_HEAD", "CHERRY_PICK_HEAD", "REVERT_HEAD", "REBASE_HEAD"}) {
        // A rebase that has ended may leave the last one there.
        if (name == std::string_view("REBASE_HEAD") && !isRebase)
            continue;
        std::istringstream lines(readSmallFile(gitDir + "/" + name, largestHead).value_or(""));
        for (std::string line; std::getline(lines, line);)
            if (isObjectName(line))
                trees.push_back(line + (name == std::string_view("REVERT_HEAD") ? "^" : ""));
    }
    if (trees.empty() && !isRebase)
        return {};
    // The tree that the merge wrote, with the names that it chose for files on both sides.
    if (const auto tree = readSmallFile(gitDir + "/AUTO_MERGE", largestHead);
        tree && isObjectName(withoutLineEnds(*tree)))
        trees.push_back(withoutLineEnds(*tree));

    std::unordered_set<std::string> brought;
    for (const auto& item : items)
        if (item.state == LocalStatus::Conflicted)
            brought.insert(item.path);
    for (const auto& tree : trees) {
        GitRun list{.arguments = {"ls-tree", "-r", "-z", "--name-only", "--full-tree", tree}};
        if (added.size() <= mostArguments) {
            list.arguments.emplace_back("--");
            list.arguments.insert(list.arguments.end(), added.begin(), added.end());
        }
        list.consume = [&, names = NulSplitter("ls-tree")](std::string_view text) mutable {
            names.feed(text, [&](std::string_view name) {
                if (std::ranges::binary_search(added, name))
                    brought.emplace(name);
            });
        };
        // This fails for the parent of a root commit. To revert a root commit adds no file.
        m_git.run({list});
    }
    if (isThere("rebase-apply/patch"))
        m_git.run(
            {GitRun{.arguments = {"apply", "--numstat", "-z", gitDir + "/rebase-apply/patch"},
                    .consume = [&, names = NulSplitter("apply")](std::string_view text) mutable {
                        // "<added>\t<deleted>\t<name>"
                        names.feed(text, [&](std::string_view line) {
                            const auto second = line.find('\t', line.find('\t') + 1);
                            brought.emplace(line.substr(std::min(second + 1, line.size())));
                        });
                    }}});

    Strings files;
    std::ranges::copy_if(added, std::back_inserter(files), [&](const auto& path) {
        const auto mode = m_tree.modeOf(path);
        return brought.contains(path) && mode && !S_ISDIR(*mode);
    });
    return files;
}

void GitActions::discard() {
    const auto items = m_tree.lookAtAll();
    auto plan = planReversion(items);
    std::ranges::sort(plan.toForget);
    plan.toDelete = broughtByOperation(items, plan.toForget);
    revert(plan);
    // A merge, or a single commit that is picked or reverted, is a local change as well. In a
    // rebase this gives up the commit at which it stopped, and not the rebase.
    for (const char* name : {"MERGE_HEAD", "CHERRY_PICK_HEAD", "REVERT_HEAD", "AUTO_MERGE"})
        if (::access((m_repository.gitDir() + "/" + name).c_str(), F_OK) == 0) {
            m_actor.run({.arguments = {"reset", "--quiet", "--no-recurse-submodules"}});
            return;
        }
}

void GitActions::makeWritable(const std::vector<Path>& given) {
    struct Target {
        FileDescriptor file;
        mode_t mode;
    };
    std::vector<Target> targets;
    for (const auto& path : m_tree.relative(given)) {
        // Never through a link: that would be a file of somebody else's.
        open_how how{};
        how.flags = O_PATH | O_CLOEXEC | O_NOFOLLOW;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
        FileDescriptor file(static_cast<int>(
            ::syscall(SYS_openat2, m_tree.root(), path.c_str(), &how, sizeof how)));
        struct stat status {};
        if (!file || ::fstat(file.get(), &status) != 0)
            throw OperationFailedError(m_tree.shown(path) +
                                       " cannot be made writable: " + std::strerror(errno));
        if (S_ISREG(status.st_mode) && (status.st_mode & S_IWUSR) == 0)
            targets.push_back({std::move(file), status.st_mode});
    }
    for (const auto& target : targets) {
        const auto name = "/proc/self/fd/" + std::to_string(target.file.get());
        if (::chmod(name.c_str(), (target.mode | S_IWUSR) & 07777) != 0)
            throw OperationFailedError("a file cannot be made writable: " +
                                       std::string(std::strerror(errno)));
    }
}

bool GitActions::hasConflictMarkers(const std::string& path) {
    const FileDescriptor file(
        ::openat(m_tree.root(), path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    const auto content =
        file ? readSmallFile("/proc/self/fd/" + std::to_string(file.get()), largestWithMarkers)
             : std::nullopt;
    if (!content)
        return false;
    std::size_t size = 7;
    Strings parts;
    NulSplitter("check-attr")
        .feed(m_git.read({.arguments = {"check-attr", "-z", "--stdin", "conflict-marker-size"},
                          .input = m_index.nameOf(path) + '\0'}),
              [&](std::string_view part) { parts.emplace_back(part); });
    if (std::size_t given = 0;
        parts.size() == 3 &&
        std::from_chars(parts[2].data(), parts[2].data() + parts[2].size(), given).ec ==
            std::errc() &&
        given > 0 && given < 1000)
        size = given;
    // The three that every conflict has, in their order.
    const char* const order = "<=>";
    std::size_t next = 0;
    for (std::size_t start = 0; start < content->size();) {
        const auto end = std::min(content->find('\n', start), content->size());
        const std::string_view line(content->data() + start, end - start);
        if (line.size() >= size && line.find_first_not_of(order[next]) >= size &&
            (line.size() == size || line[size] == ' ' || line[size] == '\r') && ++next == 3)
            return true;
        start = end + 1;
    }
    return false;
}

void GitActions::resolve(const Path& file) {
    const auto path = m_tree.relative(file);
    m_tree.refuseOthers({path});
    const auto items = m_tree.look({file});
    const auto item = std::ranges::find(items, path, &TreeItem::path);
    if (item == items.end() || item->state != LocalStatus::Conflicted)
        throw OperationFailedError(m_tree.shown(path) + " is not in conflict");
    const auto mode = m_tree.modeOf(path);
    if (mode && S_ISDIR(*mode))
        throw OperationFailedError(m_tree.shown(path) +
                                   " is a folder where the conflict is about a file; settle that "
                                   "with git itself");
    if (mode && hasConflictMarkers(path))
        throw OperationFailedError(m_tree.shown(path) +
                                   " still holds conflict markers; edit it first, or run git add "
                                   "if they belong there");
    m_index.stage({path});
}

std::vector<Path> GitActions::ignore(const std::vector<Path>& files) {
    Strings rules;
    for (const auto& file : files) {
        const auto path = m_tree.relative(file);
        if (path.empty())
            throw OperationFailedError("the working copy's root cannot be ignored");
        m_tree.refuseOthers({path});
        const auto items = m_tree.look({file});
        if (std::ranges::any_of(items, [](const TreeItem& item) {
                return item.state != LocalStatus::NotUnderSourceControl &&
                       item.state != LocalStatus::Ignored && item.state != LocalStatus::External;
            }))
            throw OperationFailedError(m_tree.shown(path) +
                                       " is under source control, or holds files that are; "
                                       "ignoring has no effect on those: remove them first");
        const auto item = std::ranges::find(items, path, &TreeItem::path);
        if (item == items.end())
            throw OperationFailedError(m_tree.shown(path) + " does not exist");
        if (item->state == LocalStatus::Ignored)
            continue;
        auto rule = ignoreRuleFor(path, item->isFolder);
        if (std::ranges::find(rules, rule) == rules.end())
            rules.push_back(std::move(rule));
    }
    if (rules.empty())
        return {};
    addIgnoreRules(m_tree.root(), rules, m_tree.shown(".gitignore"));
    return {m_repository.rootPath() / u".gitignore"};
}

void GitActions::checkin(const std::vector<Path>& given, const UString& message) {
    if (given.empty())
        return;
    if (isBlank(message))
        throw OperationFailedError("a check-in needs a message that says what was changed");
    m_tree.refuseOthers(m_tree.relative(given));
    const auto items = m_tree.look(given);
    Strings changed, toStage, conflicted, ignored, others, unknown;
    bool hasKept = false;
    for (const auto& item : items) {
        switch (item.state) {
        case LocalStatus::Unmodified:
            continue;
        case LocalStatus::NotUnderSourceControl:
            if (item.isNamed && !item.isFolder) {
                toStage.push_back(item.path);
                changed.push_back(item.path);
            }
            continue;
        case LocalStatus::Ignored:
            if (item.isNamed)
                ignored.push_back(item.path);
            continue;
        case LocalStatus::Conflicted:
            conflicted.push_back(item.path);
            continue;
        case LocalStatus::Unknown:
            unknown.push_back(item.path);
            continue;
        default:
            // Of a submodule only its commit can be checked in here.
            if (item.isFolder && item.staged == '.' && item.onDisk != 'D' && !item.hasNewCommit) {
                if (item.isNamed)
                    others.push_back(item.path);
                continue;
            }
            hasKept |= item.state == LocalStatus::Deleted && item.isUntrackedToo;
            changed.push_back(item.path);
        }
    }
    if (!conflicted.empty())
        throw OperationFailedError("in conflict: " + m_tree.shown(conflicted) +
                                   "; resolve before checking in");
    if (!ignored.empty())
        throw OperationFailedError("ignored by Git: " + m_tree.shown(ignored) +
                                   "; change the ignore rules first");
    if (!unknown.empty())
        throw OperationFailedError("cannot be read: " + m_tree.shown(unknown));
    if (changed.empty() && !others.empty())
        throw OperationFailedError("nothing to check in: " + m_tree.shown(others) +
                                   " holds the repository's own commit; check in there first");
    if (changed.empty())
        throw OperationFailedError("nothing to check in: " + m_tree.shown(m_tree.relative(given)) +
                                   (given.size() == 1 ? " is" : " are") + " as in the repository");
    const auto isThere = [&](const char* name) {
        return ::access((m_repository.gitDir() + "/" + name).c_str(), F_OK) == 0;
    };
    if (isThere("MERGE_HEAD") || isThere("CHERRY_PICK_HEAD") || hasKept ||
        (changed.size() > mostPathspecs && !isMoreStagedThan(items)))
        return checkinWhole(items, message);

    m_actor.waitForIndex();
    KeptFiles kept(m_repository);
    orAsItWas(kept, [&] {
        m_index.stage(toStage);
        kept.noteIndex();
        commit({"--only", "--pathspec-from-file=-", "--pathspec-file-nul"}, pathspecsOf(changed),
               message, changed);
    });
}

bool GitActions::isMoreStagedThan(const std::vector<TreeItem>& items) {
    std::unordered_set<std::string> asked;
    for (const auto& item : items)
        asked.insert(item.path);
    return std::ranges::any_of(m_tree.lookAtAll(), [&](const TreeItem& item) {
        return item.staged != '.' && !asked.contains(item.path);
    });
}

// A merge is committed whole. So is a deletion of a file that is still on disk: given paths, git
// would commit what lies there.
void GitActions::checkinWhole(const std::vector<TreeItem>& items, const UString& message) {
    Strings others, conflicted, toStage, paths;
    std::set<std::string> asked;
    for (const auto& item : items)
        asked.insert(item.path);
    for (const auto& item : m_tree.lookAtAll()) {
        if (item.state == LocalStatus::Conflicted)
            conflicted.push_back(item.path);
        else if (item.staged != '.' && !asked.contains(item.path))
            others.push_back(item.path);
    }
    const bool isMerge = ::access((m_repository.gitDir() + "/MERGE_HEAD").c_str(), F_OK) == 0;
    const std::string reason = isMerge ? "Git checks a merge in whole"
                                       : "Git can check these in only with all that is staged";
    if (!conflicted.empty())
        throw OperationFailedError(reason + ", and these are in conflict: " +
                                   m_tree.shown(conflicted) + "; resolve them first");
    if (!others.empty())
        throw OperationFailedError(reason + "; check these in with it: " + m_tree.shown(others));
    for (const auto& item : items) {
        const bool isNew = item.state == LocalStatus::NotUnderSourceControl;
        if (isNew ? item.isNamed && !item.isFolder
                  : item.onDisk != '.' && item.state != LocalStatus::Deleted)
            toStage.push_back(item.path);
        if (item.staged != '.' || item.onDisk != '.' || isNew)
            paths.push_back(item.path);
    }
    m_actor.waitForIndex();
    KeptFiles kept(m_repository);
    orAsItWas(kept, [&] {
        m_index.stage(toStage);
        kept.noteIndex();
        commit({}, {}, message, paths);
    });
}

void GitActions::commit(const Strings& options, const std::string& input, const UString& message,
                        const Strings& paths) {
    const auto commitOf = [&](const char* name) {
        std::string output;
        GitRun run{.arguments = {"rev-parse", "--verify", "--quiet", name}};
        run.consume = [&](std::string_view text) { output += text; };
        m_git.run({run});
        return withoutLineEnds(output);
    };
    const auto before = commitOf("HEAD^{commit}");
    Strings arguments = {"commit", "--quiet", "--cleanup=whitespace", "-F", GitAction::messageFile};
    arguments.insert(arguments.end(), options.begin(), options.end());
    try {
        m_actor.run({.arguments = arguments, .input = input, .message = toUtf8(message)});
    } catch (const exception::SourceControlException&) {
        // It may have failed, or been stopped, between the commit and the new index.
        m_git.ignoreCancellation();
        m_actor.ignoreCancellation();
        if (commitOf("HEAD^{commit}") == before || commitOf("HEAD^") != before)
            throw;
        const auto entries = m_index.ofHead(paths);
        Strings gone;
        std::ranges::copy_if(paths, std::back_inserter(gone),
                             [&](const auto& path) { return !entries.contains(path); });
        m_index.put(entries, gone);
    }
}

} // namespace quendo::git
