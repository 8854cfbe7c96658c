#pragma once

#include "quendo/platform/Path.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace quendo::git {

/// What a repository's states depend on, as the file system tells it in a few calls. Two equal
/// stamps around an answer say that index, HEAD and what it names stayed as they were.
struct RepositoryStamp {
    struct File {
        ino_t file = 0;
        off_t size = -1; ///< -1 when there is none
        long long seconds = 0;
        long nanoseconds = 0;
        friend bool operator==(const File&, const File&) = default;
    };
    std::array<File, 4> files; ///< index, HEAD, the branch's file, packed-refs

    friend bool operator==(const RepositoryStamp&, const RepositoryStamp&) = default;
};

/// Where the parts of one working copy lie. Found by reading three small files; git is not run.
/// Constant after it was opened.
class Repository {
public:
    /// Whether something that may be a repository's metadata stands in `folder`. Opens nothing.
    static bool isAt(const Path& folder);

    /// Reads where the parts are.
    /// @throws exception::DamagedRepositoryError when they are not there or not what they should
    /// be.
    static Repository open(const Path& folder);

    /// The folder that holds ".git", canonical. git is run there.
    const std::string& folder() const noexcept { return m_folder; }
    /// The working copy's root: the same, unless core.worktree says otherwise.
    const std::string& root() const noexcept { return m_root; }
    const Path& rootPath() const noexcept { return m_rootPath; }
    /// Holds HEAD and index: that of a linked worktree is its own.
    const std::string& gitDir() const noexcept { return m_gitDir; }
    /// Holds refs, objects and config.
    const std::string& commonDir() const noexcept { return m_commonDir; }

    /// True when only git can tell whether it will work here: another user owns a part, or the
    /// format is not one that every supported git knows.
    bool needsGitsOpinion() const noexcept { return m_needsGitsOpinion; }

    /// False once ".git" is another folder or file, or has another content, than when this was
    /// opened.
    bool isCurrent() const;

    /// Looks at the files that git opens first. git waits for ever on a FIFO and reads a device
    /// until memory ends, so anything but a regular file of a sane size is refused here.
    /// @throws exception::DamagedRepositoryError naming the file.
    void checkMetadataFiles() const;

    RepositoryStamp stamp() const;

    /// True while the index is split or sparse: git then writes when it reads it, unless it is kept
    /// from that (see ChildPlan::keepMetadata).
    bool isWrittenByReading() const;

    /// Bytes in the index file; 0 without one.
    std::uint64_t indexSize() const;

    /// The full name of the branch that HEAD names, or nothing when it is detached.
    std::optional<std::string> headReference() const;

    /// `path` relative to the root in native bytes: "" for the root itself, nothing for a path
    /// outside it or inside the metadata.
    std::optional<std::string> relative(const Path& path) const;

private:
    void readFormat();
    bool hasSparseIndex() const;

    std::string m_folder;
    std::string m_root;
    Path m_rootPath;
    std::string m_gitDir;
    std::string m_commonDir;
    bool m_needsGitsOpinion = false;
    RepositoryStamp::File m_marker; ///< of ".git", a link not followed
};

} // namespace quendo::git
