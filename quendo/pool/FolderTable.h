#pragma once

#include "quendo/platform/Path.h"
#include "quendo/platform/ReentrantReadWriteLock.h"
#include "quendo/platform/UniqueFunction.h"

#include <functional>
#include <list>
#include <memory>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quendo {

class PooledManagedFolder;

/// The folders of one provider by root: which one lives, who is making one, and what has to be
/// announced about it. FolderTable.cpp explains how.
///
/// Threads: any. Nothing of a host or an adapter is called or destroyed under the lock.
class FolderTable {
public:
    using Folder = std::shared_ptr<PooledManagedFolder>;

    /// The time between the making of one folder and its release.
    class Life;

    /// What announces notices. It runs without a lock; what it throws is logged.
    struct Announcements {
        std::function<void(const Folder&)> made;
        std::function<void(const Path&root)> deleted, released;
    };

    explicit FolderTable(Announcements announcements);
    ~FolderTable();
    FolderTable(const FolderTable&) = delete;
    FolderTable& operator=(const FolderTable&) = delete;

    /// The living folder of this root, or null. Takes the read side of the lock.
    Folder find(const Path& root) const;

    /// The living folder of this root, and otherwise what `make` makes: called without the lock, by
    /// one thread at a time for each root. Requests for the same root wait for it meanwhile, and
    /// get the same folder or the same exception.
    /// @return the folder, and whether this call made it: call announce() in a moment then
    /// @param make its folder calls release() with the given life when it is destroyed
    /// @throws what `make` throws; exception::SourceControlException when the thread would wait for
    ///         itself, or has waited for long
    std::pair<Folder, bool> obtain(const Path& root,
                                   const std::function<Folder(std::shared_ptr<Life>)>& make);

    /// The folder of this life has been destroyed. Announces it, unless it was never obtained.
    void release(const Path& root, const std::shared_ptr<Life>& life) noexcept;

    /// The root of a folder has gone. Announces it, for a folder that is still being made behind
    /// its making.
    void noteDeletion(const Path& root, const std::shared_ptr<Life>& life);

    /// Announces what is due about this root, in order. Returns at once when that is being done
    /// already, by another thread or further up in this one; that goes on with it then.
    void announce(const Path& root) noexcept;

    /// The living folders, in no order.
    std::vector<Folder> getFolders() const;

private:
    using Notices = std::list<UniqueFunction<void()>>;
    struct Making;
    struct Root;

    void refuseCycle(const Path& root, const Making& making) const;
    Folder await(const Path& root, const Making& making);
    void publish(const Path& root, const Folder& folder, const std::shared_ptr<Life>& life);
    void abandon(const Path& root) noexcept;
    Notices releaseNotice(const Path& root) const;

    const Announcements m_announcements;

    mutable ReentrantReadWriteLock m_lock;
    // Guarded by m_lock.
    std::unordered_map<Path, Root> m_roots; ///< those that something is known of
    std::unordered_map<std::thread::id, std::shared_ptr<const Making>> m_waiting;
};

} // namespace quendo
