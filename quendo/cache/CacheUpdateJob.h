#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/CMStatusCacheStatistics.h"
#include "quendo/cache/CacheBarrier.h"
#include "quendo/cache/RefreshLedger.h"
#include "quendo/cache/RefreshRequest.h"
#include "quendo/cache/RefreshStatistics.h"
#include "quendo/cache/RetryPlan.h"
#include "quendo/cache/TransactionalFileCache.h"
#include "quendo/platform/EachSlot.h"
#include "quendo/platform/EverySlot.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>

#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <vector>

namespace quendo {

class CMAdapter;
class CMApplicationInteractor;
class QueryOrigin;
class RunningQuery;

/// The signals of one cache. Shared by the cache and its jobs, because destroying a signal that is
/// being given is an error and a job may outlive its cache. A slot that throws hides no notice from
/// the others. Threads: any.
struct CacheSignals {
    boost::signals2::signal<void(), platform::EverySlot> cacheChanged;
    boost::signals2::signal<void(const CMStatusCache::Tasks&), platform::EverySlot> tasksStarted;
    boost::signals2::signal<void(const CMStatusCache::Tasks&), platform::EverySlot> tasksFinished;
    boost::signals2::signal<void(const StatusChanges&), platform::EverySlot> changes;
    boost::signals2::signal<void(const FolderSetChange&), platform::EverySlot> foldersChanged;
    boost::signals2::signal<void(const std::optional<Staleness>&), platform::EachSlot>
        stalenessChanged;
};

/// What the jobs of one cache share with it. Its members outlive the cache where a job still runs.
struct CacheBooks {
    std::shared_ptr<CacheSignals> signals = std::make_shared<CacheSignals>();
    std::shared_ptr<RefreshLedger> ledger = std::make_shared<RefreshLedger>();
    std::shared_ptr<RefreshStatistics> statistics = std::make_shared<RefreshStatistics>();
};

/// One unit of work of a cache: a query of the adapter, the merge of its answer, and the tasks that
/// wait for it. CacheUpdateJob.cpp tells what a run does.
///
/// Threads: made on any; owned by one at a time, the queue or the drain. run() on the cache's
/// strand; a second time only when tasks were carried over.
class CacheUpdateJob {
public:
    /// A job for one request.
    CacheUpdateJob(RefreshRequest request, CacheBooks books);

    /// A retry: a job without tasks, that joins no other.
    CacheUpdateJob(RetrySets& set, CacheBooks books);

    virtual ~CacheUpdateJob();
    CacheUpdateJob& operator=(const CacheUpdateJob&) = delete;

    /// Whether one query can answer both.
    virtual bool canCombineWith(const CacheUpdateJob& other) const noexcept = 0;

    /// A job that stands for both; the tasks of this one come first. They must fit together.
    virtual std::unique_ptr<CacheUpdateJob> combineWith(const CacheUpdateJob& other) const = 0;

    /// Skips itself when a task is cancelled; else asks, merges and tells. Settles every task that
    /// is not carried over, whatever happens, and throws nothing.
    virtual void run(CMAdapter& adapter, CMApplicationInteractor& interactor,
                     TransactionalFileCache<FileState>& cache) noexcept final;

    /// The query and the merge. The paths are running.
    virtual void runSpecialization(CMAdapter& adapter,
                                   TransactionalFileCache<FileState>& cache) = 0;

    /// Whether it can take in `other` as soon as that is queued behind it, because combining early
    /// and late give the same.
    virtual bool canAbsorbAtOnce(const CacheUpdateJob& other) const noexcept = 0;

    /// Whether its query answers all that `other` requests, with the same flag.
    virtual bool willAnswer(const CacheUpdateJob& other) const noexcept = 0;

    /// Makes this job what combineWith(other) gives, in place; `other` is left empty.
    virtual void absorb(CacheUpdateJob& other) noexcept;

    /// Hands the paths over to the ledger: they are running from now on.
    void start() noexcept { m_books.ledger->start(m_paths, m_sets); }

    /// Whether a folder request made now with this flag would be answered by this job as well.
    virtual bool willAnswerFolder(const Path& folder, bool folderStatusFlag) const noexcept = 0;

    /// Until start().
    const PendingPaths& paths() const noexcept { return m_paths; }
    virtual const PendingPath* find(const Path& path) const = 0;
    /// Of its first request.
    Staleness staleness() const noexcept;
    /// Background when none of the requests that were combined is isRequested().
    QueryUrgency urgency() const noexcept {
        return m_isRequested ? QueryUrgency::Requested : QueryUrgency::Background;
    }

    /// From now on it is requested work, because requested work waits behind it.
    void makeRequested() noexcept { m_isRequested = true; }

    /// Before run(): where to put a background query, so that it can be interrupted. It outlives
    /// the run.
    void setRunningQuery(RunningQuery* query) noexcept { m_runningQuery = query; }

    /// Forgets the tasks that nobody holds any more; what they requested is wanted all the same.
    void dropUnheldTasks() noexcept;
    std::size_t taskCount() const noexcept { return m_requests.size(); }

    /// The paths that no task requests, after dropUnheldTasks(). @throws std::bad_alloc
    PendingPaths unheldPaths() const;
    void forgetUnheldPaths() noexcept;

    /// Used by the queue: at which size it looks again for what nobody holds.
    struct CheckAt {
        std::size_t tasks = 256;
        std::size_t paths = RetryPlan::mostFiles;
    } checkAt;

    virtual bool isOfFolder() const noexcept = 0;

    /// After run(): whether tasks go on, and the job has to run again. It joins no other.
    bool isCarriedOver() const noexcept { return !m_requests.empty() && m_isAlone; }

    /// Settles every task: the job will not run. Those that are required fail, the others succeed.
    void stop() noexcept;

protected:
    CacheUpdateJob(const CacheUpdateJob&) = default;

    bool isAlone() const noexcept { return m_isAlone; }
    const RefreshRequests& requests() const noexcept { return m_requests; }
    const RetrySets& sets() const noexcept { return m_sets; }

    using Transaction = TransactionalFileCache<FileState>::Transaction;
    /// A transaction that records what listeners want to know.
    Transaction beginTransaction(TransactionalFileCache<FileState>& cache) const;
    void commit(Transaction& transaction);
    const RefreshLedger& ledger() const noexcept { return *m_books.ledger; }

private:
    class Gate;
    using Connections = std::vector<boost::signals2::scoped_connection>;
    using Result = CacheStatistics::Result;

    bool isCancelled() const noexcept;
    CacheStatistics::Target target() const noexcept;
    Connections onCancel(CMApplicationInteractor& interactor);
    void runUntilMerged(CMAdapter& adapter, TransactionalFileCache<FileState>& cache);
    void tellMerged();
    void tellFinished(const CMStatusCache::Tasks& tasks) noexcept;
    void giveUp(Result result, const std::exception_ptr& failure) noexcept;
    void settle() noexcept;

    const CacheBooks m_books;
    PendingPaths m_paths;
    RetrySets m_sets;            ///< two for files; one for each folder
    RefreshRequests m_requests;  ///< those with a task
    RefreshReason m_reason;      ///< the first in the order of RefreshReason
    bool m_isRequested;          ///< somebody waits for it, or did
    bool m_hasCancelled = false; ///< a request whose task nobody holds
    bool m_isAlone = false;
    RefreshRequest::TimePoint m_since;
    // Of a run:
    RunningQuery* m_runningQuery = nullptr;
    std::shared_ptr<Gate> m_gate;
    std::chrono::steady_clock::time_point m_queryStart{};
    bool m_isAnswered = false;
    std::exception_ptr m_failure; ///< of the tasks
    StatusChanges m_changes;
    FolderSetChange m_folderSetChange;
};

} // namespace quendo
