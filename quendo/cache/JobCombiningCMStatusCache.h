#pragma once

#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/CMStatusCacheStatistics.h"
#include "quendo/cache/Stoppable.h"
#include "quendo/platform/Export.h"

#include <memory>

namespace quendo {

class CMAdapter;
class CMApplicationInteractor;

/// The status cache of one working copy. Requests for refreshes become jobs, which run one at a
/// time on a strand of the cache's own; requests that pile up meanwhile are combined. What a job
/// did not answer, because its query failed or was stopped, the cache retries by itself.
///
/// Paths that have one of the adapter's forbidden names on the way from the root are left alone:
/// their refresh is a task that does nothing.
///
/// Threads: any; the last reference may be dropped anywhere, also in a listener. Destroying it
/// stops it and disconnects all listeners; one that is running is not waited for.
class QUENDO_API JobCombiningCMStatusCache : public CMStatusCache,
                                             public Stoppable,
                                             public CMStatusCacheChanges,
                                             public CMStatusCacheFolders,
                                             public CMStatusCacheFreshness,
                                             public CMStatusCacheStatistics {
public:
    /// Asks the adapter for its root and its forbidden names, once.
    /// @throws exception::InvalidArgumentError when either is null
    JobCombiningCMStatusCache(std::shared_ptr<CMAdapter> adapter,
                              std::shared_ptr<CMApplicationInteractor> interactor);
    ~JobCombiningCMStatusCache() override;
    JobCombiningCMStatusCache(const JobCombiningCMStatusCache&) = delete;
    JobCombiningCMStatusCache& operator=(const JobCombiningCMStatusCache&) = delete;

    /// Whether one of the names on the way from the root to `file` is forbidden. By the text alone.
    bool isFileIgnored(const Path& file) const;

    boost::signals2::connection connectCacheChanged(const ChangedSlot& slot) override;
    boost::signals2::connection connectTasksStarted(const TasksSlot& slot) override;
    boost::signals2::connection connectTasksFinished(const TasksSlot& slot) override;
    std::shared_ptr<CacheTask> refreshFolder(const Path& folder) override;
    std::shared_ptr<CacheTask> loadFolder(const Path& folder) override;
    std::shared_ptr<CacheTask> refreshCMStatuses(const std::vector<Path>& files) override;
    void refreshAll() override;
    void setFolderStatusFlag(bool flag) override;
    bool getFolderStatusFlag() const override;
    std::optional<FileState> getCachedStatus(const Path& path) const override;
    std::vector<Path> getModifiedFiles() const override;
    std::vector<Path> getFilesWithStatus(LocalStatus status) const override;
    std::vector<Path> getCachedFiles() const override;
    void stop() override;

    boost::signals2::connection connectChanges(const CMStatusCacheChanges::Slot& slot) override;
    StatusListing listStatuses(const Path& folder) const override;

    FolderSummary getFolderSummary(const Path& folder) const override;
    std::vector<Path> getFolders() const override;
    std::uint64_t getFolderSetVersion() const override;
    boost::signals2::connection
    connectFoldersChanged(const CMStatusCacheFolders::Slot& slot) override;

    Freshness getFreshness(const Path& path) const override;
    std::optional<Staleness> getStaleness() const override;
    void setPendingChanges(PendingChanges pending) override;
    boost::signals2::connection connectStalenessChanged(const StalenessSlot& slot) override;
    std::shared_ptr<CacheTask> requireFreshFile(const Path& file) override;
    std::shared_ptr<CacheTask> requireFreshFolder(const Path& folder) override;

    CacheStatistics getStatistics() const override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

/// A new cache for the adapter's working copy; empty, and with the folder status flag false.
/// @param interactor the one that the adapter was made with: cancelling goes through it
QUENDO_API std::shared_ptr<CMStatusCache>
createJobCombiningCache(std::shared_ptr<CMAdapter> adapter,
                        std::shared_ptr<CMApplicationInteractor> interactor);

} // namespace quendo
