#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/platform/Path.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quendo::git {

class GitRunner;
class Repository;

/// A path as it is now, to an operation that is to change it.
struct TreeItem {
    std::string path; ///< native, relative to the root
    LocalStatus state = LocalStatus::NotUnderSourceControl;
    bool isFolder = false;
    bool isNamed = false; ///< asked for itself, not as a part of a folder that was
    char staged = '.';    ///< git's two columns
    char onDisk = '.';
    bool isUntrackedToo = false; ///< removed from the index and still there
    bool hasNewCommit = false;   ///< a submodule at another commit than the index says
    std::string why;             ///< for LocalStatus::Unknown
};

/// What an operation looks at before it changes something, and the reasons to refuse that do not
/// depend on the operation. All paths are native and relative to the working copy's root, through
/// a descriptor of which they are reached: one may be too long to be named from "/".
///
/// The refusals throw exception::OperationFailedError. Threads: used by one.
class WorkingTree {
public:
    /// @throws exception::OperationFailedError when the root cannot be entered
    explicit WorkingTree(GitRunner& git);

    int root() const noexcept { return m_root.get(); }

    /// @throws for a path outside the working copy or in its metadata
    std::string relative(const Path& file) const;
    /// Each once, sorted.
    std::vector<std::string> relative(const std::vector<Path>& files) const;

    /// For messages.
    std::string shown(const std::string& path) const;
    std::string shown(const std::vector<std::string>& paths) const;

    /// What stands there, symbolic links not followed; nothing when there is nothing.
    std::optional<mode_t> modeOf(const std::string& path) const;

    /// The states of these and, for folders, of all below them, asked for anew.
    std::vector<TreeItem> look(const std::vector<Path>& files);
    /// Those of everything tracked.
    std::vector<TreeItem> lookAtAll();

    /// Refuses paths that lie in another working copy within this one, or in the folder of a
    /// submodule that is not checked out.
    void refuseOthers(const std::vector<std::string>& paths);
    /// Refuses when files cannot be made or deleted at these paths.
    void refuseReadOnly(const std::vector<std::string>& paths) const;
    /// Refuses when something that git would delete stands where files are to be written: a file or
    /// link in place of one of their folders, a folder that holds something in place of one.
    void refuseObstacles(const std::vector<std::string>& paths) const;

    /// Deletes folders that these removed files left empty, as git does: all but the root and the
    /// current folder of this process.
    void dropEmptyFolders(const std::vector<std::string>& removed) const;

private:
    std::vector<TreeItem> itemsOf(const std::map<Path, FileState>& states,
                                  const std::set<std::string>& named) const;

    GitRunner& m_git;
    const Repository& m_repository;
    FileDescriptor m_root;
};

/// The folders that lead to these paths, without the root; each once, sorted.
std::set<std::string> parentsOf(const std::vector<std::string>& paths);

} // namespace quendo::git
