#pragma once

#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/CMStatusCacheStatistics.h"
#include "quendo/cache/CacheUpdateJob.h"
#include "quendo/cache/TransactionalFileCache.h"

#include <memory>
#include <optional>

namespace quendo {

class CMAdapter;
class CMApplicationInteractor;
class Executor;

/// What the updater and its drain work on. It belongs to the cache, which a running job outlives
/// when the last reference to the cache goes in the middle, so the two share it.
struct CacheState {
    TransactionalFileCache<FileState> files;
    CacheBooks books;
};

/// Runs the update jobs of one cache, one at a time and in their order, on a strand of its own, and
/// retries what they did not answer. JobQueingCacheUpdater.cpp tells how jobs combine.
///
/// Threads: any. Destroying it stops it, and waits for nothing.
class JobQueingCacheUpdater {
public:
    /// The strand is named after the last part of the adapter's root.
    JobQueingCacheUpdater(std::shared_ptr<CacheState> state, std::shared_ptr<CMAdapter> adapter,
                          std::shared_ptr<CMApplicationInteractor> interactor);
    ~JobQueingCacheUpdater();
    JobQueingCacheUpdater(const JobQueingCacheUpdater&) = delete;
    JobQueingCacheUpdater& operator=(const JobQueingCacheUpdater&) = delete;

    /// Queues `job`; after stop() its tasks end at once (CacheUpdateJob::stop).
    /// @throws what the executor throws when it cannot take work; the job is then gone, unsettled.
    void submit(std::unique_ptr<CacheUpdateJob> job);

    /// Lets `request` be answered by a folder job that waits already, if there is one that will ask
    /// for its folder with the same flag.
    /// @return whether there was one; `request` is then gone
    bool join(std::unique_ptr<CacheUpdateJob>& request, const Path& folder, bool folderStatusFlag);

    /// Ends the tasks of everything queued (CacheUpdateJob::stop). A running job goes on. Nothing
    /// is retried any more.
    void stop();

    /// What the ledger says, and what waits.
    Freshness getFreshness(const Path& path) const;
    std::optional<Staleness> getStaleness() const;
    CacheStatistics getStatistics() const;

    /// The strand.
    const std::shared_ptr<Executor>& executor() const noexcept;

private:
    class Impl;
    const std::shared_ptr<Impl> m_impl;
};

} // namespace quendo
