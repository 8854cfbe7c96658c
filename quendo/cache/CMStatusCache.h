#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/adapter/LocalStatus.h"
#include "quendo/cache/CacheTask.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <memory>
#include <optional>
#include <vector>

namespace quendo {

/// The last known state of every path of one working copy that somebody has asked about.
///
/// Reading is immediate: it waits for no query and looks at no disk. Refreshing is asynchronous:
/// requests wait their turn, those that fit together are answered by one query, and everything that
/// one query answered becomes visible at once.
///
/// Keys are under the adapter's canonical root, spelled as the adapter spells it; a path in another
/// spelling is another path.
///
/// Set the folder status flag before the first refresh if untracked files matter: while it is false
/// a folder's refresh drops the untracked entries that refreshes of files have put in.
///
/// A refresh that failed, or that was skipped because a request combined with it was cancelled, is
/// retried by the cache itself; CMStatusCacheFreshness tells since when a state may be outdated.
///
/// Further interfaces may be found with dynamic_cast: CMStatusCacheChanges, CMStatusCacheFolders,
/// CMStatusCacheFreshness, CMStatusCacheStatistics.
///
/// Threads: any thread may call anything, but must not wait for a refresh in a listener. Listeners
/// run one at a time on the cache's own strand, without a lock. What a listener of the first two
/// kinds throws becomes the failure of the refresh that it is told about; of several exceptions the
/// first. The other listeners are called all the same.
class QUENDO_API CMStatusCache {
public:
    using Tasks = std::vector<std::shared_ptr<CacheTask>>;
    using ChangedSlot = boost::signals2::slot<void()>;
    using TasksSlot = boost::signals2::slot<void(const Tasks&)>;

    virtual ~CMStatusCache();

    /// Called after every query whose answer was merged, whether it changed something or not.
    virtual boost::signals2::connection connectCacheChanged(const ChangedSlot& slot) = 0;

    /// Called before the query of these tasks. There are none when the cache retries by itself, and
    /// of very many requests the tasks that nobody holds any more may be missing.
    virtual boost::signals2::connection connectTasksStarted(const TasksSlot& slot) = 0;

    /// Called once after each notice of connectTasksStarted, however the query ended, and before
    /// the tasks that did not fail wake their waiters.
    virtual boost::signals2::connection connectTasksFinished(const TasksSlot& slot) = 0;

    /// Queues a refresh of `folder` and everything below it. Never null; throws nothing of the
    /// adapter's, whose failures travel in the task.
    virtual std::shared_ptr<CacheTask> refreshFolder(const Path& folder) = 0;

    /// Queues a refresh of `folder` unless it, or a folder above it, was given to this operation
    /// before, whatever became of that; the task then waits for nothing. To have a folder's states
    /// for sure, wait for refreshFolder().
    virtual std::shared_ptr<CacheTask> loadFolder(const Path& folder) = 0;

    /// Queues a refresh of these files. One that the adapter no longer answers leaves the cache.
    virtual std::shared_ptr<CacheTask> refreshCMStatuses(const std::vector<Path>& files) = 0;

    /// Refreshes the root and waits; @throws as CacheTask::wait().
    virtual void refreshAll() = 0;

    /// Whether folder refreshes ask for untracked and ignored files too; false at the start. Holds
    /// for requests made from now on; one that joins an earlier one, which waits, takes its flag.
    virtual void setFolderStatusFlag(bool flag) = 0;
    virtual bool getFolderStatusFlag() const = 0;

    /// The state of one path, or empty when it is not cached. A system call is made only when two
    /// threads meet at the lock, and nothing is allocated. A folder that is ignored as a whole, or
    /// belongs to another working copy, has one entry and none for what lies below:
    /// getEffectiveStatus() answers for that too.
    virtual std::optional<FileState> getCachedStatus(const Path& path) const = 0;

    /// The paths that are Modified, Missing, Added, Deleted or Conflicted, in no order.
    virtual std::vector<Path> getModifiedFiles() const = 0;
    virtual std::vector<Path> getFilesWithStatus(LocalStatus status) const = 0;

    /// Every path in the cache, in no order, but the root is not the first of several.
    virtual std::vector<Path> getCachedFiles() const = 0;

    /// Ends refreshing for good: what is queued wakes its waiters without a refresh, and so does
    /// every later request; only what was required (CMStatusCacheFreshness) fails. Nothing is
    /// retried any more. A query under way goes on; nothing waits for it.
    virtual void stop() = 0;
};

/// The state of `path` as far as the cache tells it: its entry; without one, Ignored or External
/// (not a folder, no properties) when the nearest folder above it that has an entry is ignored or
/// belongs to another working copy, whose own managed folder knows more. Empty otherwise. The cache
/// does not know whether there is such a file.
///
/// Threads: any; looks at no disk and waits for no refresh, as getCachedStatus().
QUENDO_API std::optional<FileState> getEffectiveStatus(const CMStatusCache& cache,
                                                       const Path& path);

} // namespace quendo
