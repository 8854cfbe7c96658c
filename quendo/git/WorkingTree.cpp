#include "quendo/git/WorkingTree.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitStatus.h"
#include "quendo/git/Repository.h"
#include "quendo/platform/UString.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::git {
namespace {

using exception::OperationFailedError;

constexpr std::size_t mostNamed = 3;

bool isEmptyFolder(int root, const std::string& path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(
        ::fdopendir(::openat(root, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
        ::closedir);
    if (!entries)
        return false;
    while (const auto* entry = ::readdir(entries.get()))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            return false;
    return true;
}

} // namespace

std::set<std::string> parentsOf(const std::vector<std::string>& paths) {
    std::set<std::string> parents;
    for (const auto& path : paths)
        for (auto slash = path.rfind('/'); slash != std::string::npos && slash != 0;
             slash = path.rfind('/', slash - 1))
            if (!parents.insert(path.substr(0, slash)).second)
                break; // and those above it
    return parents;
}

WorkingTree::WorkingTree(GitRunner& git)
    : m_git(git), m_repository(git.repository()),
      m_root(::open(m_repository.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (!m_root)
        throwCannotEnter(m_repository.rootPath(), errno);
}

std::string WorkingTree::relative(const Path& file) const {
    auto path = m_repository.relative(file);
    if (!path)
        throw OperationFailedError(file.toUtf8() + " does not belong to the files of " +
                                   m_repository.rootPath().toUtf8());
    return *path;
}

std::vector<std::string> WorkingTree::relative(const std::vector<Path>& files) const {
    std::vector<std::string> paths;
    for (const auto& file : files)
        paths.push_back(relative(file));
    std::ranges::sort(paths);
    paths.erase(std::ranges::unique(paths).begin(), paths.end());
    return paths;
}

std::string WorkingTree::shown(const std::string& path) const {
    return (path.empty() ? m_repository.rootPath() : m_repository.rootPath().child(path)).toUtf8();
}

std::string WorkingTree::shown(const std::vector<std::string>& paths) const {
    std::string text;
    for (std::size_t i = 0; i < std::min(paths.size(), mostNamed); ++i)
        text += (i == 0 ? "" : ", ") + shown(paths[i]);
    if (paths.size() > mostNamed)
        text += " and " + std::to_string(paths.size() - mostNamed) + " more";
    return text;
}

std::optional<mode_t> WorkingTree::modeOf(const std::string& path) const {
    struct stat status;
    if (::fstatat(m_root.get(), path.empty() ? "." : path.c_str(), &status, AT_SYMLINK_NOFOLLOW) !=
        0)
        return std::nullopt;
    return status.st_mode;
}

std::vector<TreeItem> WorkingTree::look(const std::vector<Path>& files) {
    const auto paths = relative(files);
    return itemsOf(GitStatus(m_git).ofPaths(files), {paths.begin(), paths.end()});
}

std::vector<TreeItem> WorkingTree::lookAtAll() {
    return itemsOf(GitStatus(m_git).ofFolder(m_repository.rootPath(), false), {});
}

std::vector<TreeItem> WorkingTree::itemsOf(const std::map<Path, FileState>& states,
                                           const std::set<std::string>& named) const {
    std::vector<TreeItem> items;
    for (const auto& [path, state] : states) {
        TreeItem item;
        item.path = relative(path);
        item.state = state.getState();
        item.isFolder = state.isFolder();
        item.isNamed = named.contains(item.path);
        bool isFirst = true;
        for (const auto& one : state.getProperties()) {
            if (one.getName() == property::why)
                item.why = toUtf8(one.getValue());
            if (one.getName() == property::submodule)
                item.hasNewCommit = one.getValue().find(u"commit") != UString::npos;
            if (one.getName() != property::columns || one.getValue().size() != 2)
                continue;
            if (isFirst && one.getValue() != u"??" && one.getValue() != u"!!") {
                item.staged = static_cast<char>(one.getValue()[0]);
                item.onDisk = static_cast<char>(one.getValue()[1]);
            }
            item.isUntrackedToo |= !isFirst;
            isFirst = false;
        }
        items.push_back(std::move(item));
    }
    return items;
}

void WorkingTree::refuseOthers(const std::vector<std::string>& paths) {
    const auto folders = parentsOf(paths);
    for (const auto& folder : folders)
        if (modeOf(folder + "/.git"))
            throw OperationFailedError(
                shown(folder) + " is a working copy of its own; work on what is in it there");
    if (folders.empty())
        return;
    // A submodule that is not checked out is told by the index alone.
    constexpr std::size_t mostArguments = 64; // beyond, everything is listed
    GitRun list{.arguments = {"ls-files", "-s", "-z", "--full-name", "--"}};
    if (folders.size() <= mostArguments)
        for (const auto& folder : folders)
            list.arguments.push_back(m_repository.folder() == m_repository.root()
                                         ? folder
                                         : m_repository.root() + "/" + folder);
    NulSplitter("ls-files").feed(m_git.read(list), [&](std::string_view record) {
        const auto tab = record.find('\t');
        if (!record.starts_with("160000 ") || tab == std::string_view::npos)
            return;
        if (const std::string path(record.substr(tab + 1)); folders.contains(path))
            throw OperationFailedError(shown(path) +
                                       " is a submodule that is not checked out; run git submodule "
                                       "update --init, and work on what is in it there");
    });
}

void WorkingTree::refuseReadOnly(const std::vector<std::string>& paths) const {
    std::set<std::string> folders;
    for (const auto& path : paths) {
        const auto slash = path.rfind('/');
        folders.insert(slash == std::string::npos ? "." : path.substr(0, slash));
    }
    for (const auto& folder : folders)
        if (const auto mode = modeOf(folder);
            mode && S_ISDIR(*mode) &&
            ::faccessat(m_root.get(), folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
            throw OperationFailedError(
                "nothing was changed: " + shown(folder == "." ? "" : folder) +
                " cannot be written to: " + std::strerror(errno));
}

void WorkingTree::refuseObstacles(const std::vector<std::string>& paths) const {
    const auto refuse = [&](const std::string& obstacle, const char* what) {
        throw OperationFailedError("nothing was changed: " + shown(obstacle) + what +
                                   " where Git has something else to write; move it away first");
    };
    for (const auto& folder : parentsOf(paths))
        if (const auto mode = modeOf(folder); mode && !S_ISDIR(*mode))
            refuse(folder, S_ISLNK(*mode) ? " is a symbolic link" : " is a file");
    for (const auto& path : paths)
        if (const auto mode = modeOf(path);
            mode && S_ISDIR(*mode) && !isEmptyFolder(m_root.get(), path))
            refuse(path, " is a folder that is not empty");
}

void WorkingTree::dropEmptyFolders(const std::vector<std::string>& removed) const {
    struct stat current {};
    const bool knowsCurrent = ::stat(".", &current) == 0;
    const auto folders = parentsOf(removed);
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
        struct stat status {};
        if (::fstatat(m_root.get(), folder->c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            !(knowsCurrent && status.st_dev == current.st_dev && status.st_ino == current.st_ino))
            ::unlinkat(m_root.get(), folder->c_str(), AT_REMOVEDIR);
    }
}

} // namespace quendo::git
