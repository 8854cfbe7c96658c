#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CacheBarrier.h"
#include "quendo/cache/RefreshLedger.h"
#include "quendo/cache/TransactionalFileCache.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>

#include <exception>
#include <list>
#include <memory>
#include <vector>

namespace quendo {

class CMAdapter;
class CMApplicationInteractor;
class QueryOrigin;

/// The signals of one cache. Shared by the cache and its jobs, because destroying a signal that is
/// being given is an error and a job may outlive its cache. Threads: any.
struct CacheSignals {
    boost::signals2::signal<void()> cacheChanged;
    boost::signals2::signal<void(const CMStatusCache::Tasks&)> tasksStarted;
    boost::signals2::signal<void(const CMStatusCache::Tasks&)> tasksFinished;
    boost::signals2::signal<void(const StatusChanges&)> changes;
    boost::signals2::signal<void(const FolderSetChange&)> foldersChanged;
};

/// One unit of work of a cache: a query of the adapter, the merge of its answer, and the tasks that
/// wait for it. CacheUpdateJob.cpp tells what a run does.
///
/// Threads: made on any; owned by one at a time, the queue or the drain. run() on the cache's
/// strand, once.
class CacheUpdateJob {
public:
    CacheUpdateJob(RefreshRequest request, std::shared_ptr<CacheSignals> signals,
                   std::shared_ptr<RefreshLedger> ledger);
    virtual ~CacheUpdateJob();
    CacheUpdateJob& operator=(const CacheUpdateJob&) = delete;

    /// Whether one query can answer both.
    virtual bool canCombineWith(const CacheUpdateJob& other) const noexcept = 0;

    /// A job that stands for both; the tasks of this one come first. They must fit together.
    virtual std::unique_ptr<CacheUpdateJob> combineWith(const CacheUpdateJob& other) const = 0;

    /// Skips itself when a task is cancelled; else asks, merges and tells. Settles every task,
    /// whatever happens, and throws nothing.
    virtual void run(CMAdapter& adapter, CMApplicationInteractor& interactor,
                     TransactionalFileCache<FileState>& cache) noexcept final;

    /// The query and the merge. The requests are running.
    virtual void runSpecialization(CMAdapter& adapter,
                                   TransactionalFileCache<FileState>& cache) = 0;

    /// Whether it fits with every job that canCombineWith() one of its kind, so that combining
    /// early and late give the same.
    virtual bool combinesAtOnce() const noexcept = 0;

    /// Makes this job what combineWith(other) gives, in place; `other` is left empty.
    virtual void absorb(CacheUpdateJob& other) noexcept;

    /// Hands the requests over to the ledger: they are running from now on.
    void start() noexcept { m_ledger->start(m_requests); }

    /// Whether a folder request made now with this flag would be answered by this job as well.
    virtual bool willAnswerFolder(const Path& folder, bool folderStatusFlag) const noexcept = 0;

    /// Until start().
    const RefreshRequests& requests() const noexcept { return m_requests; }

    /// Settles every task with success: the job will not run.
    void completeAll() noexcept;

protected:
    CacheUpdateJob(const CacheUpdateJob&) = default;

    virtual bool isOfFolder() const noexcept = 0;

    /// As runSpecialization(), for what retry() of the ledger has made the running requests.
    virtual void answerOwed(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) = 0;

    using Transaction = TransactionalFileCache<FileState>::Transaction;
    /// A transaction that records what listeners want to know.
    Transaction beginTransaction(TransactionalFileCache<FileState>& cache) const;
    void commit(Transaction& transaction);
    const RefreshLedger& ledger() const noexcept { return *m_ledger; }

private:
    class Gate;
    using Connections = std::vector<boost::signals2::scoped_connection>;

    bool isCancelled() const noexcept;
    Connections onCancel(CMApplicationInteractor& interactor);
    void runUntilMerged(CMAdapter& adapter, TransactionalFileCache<FileState>& cache);
    void runOwed(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) noexcept;
    void tellMerged();
    void tellFinished(const CMStatusCache::Tasks& tasks) noexcept;
    void failAll(const std::exception_ptr& failure) noexcept;

    const std::shared_ptr<CacheSignals> m_signals;
    const std::shared_ptr<RefreshLedger> m_ledger;
    RefreshRequests m_requests;
    std::list<std::shared_ptr<CacheBarrier>> m_tasks;
    // Of a run:
    std::shared_ptr<Gate> m_gate;
    StatusChanges m_changes;
    FolderSetChange m_folderSetChange;
};

} // namespace quendo
