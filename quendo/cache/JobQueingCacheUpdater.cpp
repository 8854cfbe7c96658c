#include "quendo/cache/JobQueingCacheUpdater.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ReentrantReadWriteLock.h"

#include <algorithm>
#include <list>
#include <utility>

// How jobs combine.
//
// While a job runs, requests pile up behind it. When the drain comes to take the next one, it takes
// the first of the queue and joins to it those that follow directly, as long as each fits to what
// the joined job has become: files with files, a folder with one inside it or around it. The first
// that does not fit ends this, and keeps its place. So the order of jobs that do not fit together
// is that of their submission, and ten thousand files asked for one by one are one query.
//
// Folder jobs are joined when they are taken and not when they are submitted, because what fits
// depends on what was joined before: behind A/x and A/y, A fits to both, but the two do not fit to
// each other; joining A to A/y early would let A/x end the run that would have become A. File jobs
// fit whatever they hold, so a file job joins the last of the queue at once if that is one: the
// result is the same, and no list of ten thousand jobs has to be walked under the lock. Joining
// moves list nodes, so its cost is the number of jobs and it cannot fail.
//
// The drain. Whoever submits into a queue without a drain posts one. It works until it finds the
// queue empty, and in the same hold of the queue's lock says that there is no drain any more: a job
// submitted before that is seen, one submitted after it posts a new drain. The posted task holds
// the Impl weakly: dropping the updater with work queued drops the work, settled by stop(). A drain
// that runs keeps the Impl, and with it whatever a job works on, until its job has ended; the
// updater's destructor does not wait, so it may run inside a job's listener.
//
// Who may call what from where. submit() and stop() take any thread's time for a few list
// operations. A listener, on the strand, may submit, cancel, stop and destroy the cache; it must
// not wait for a task of the same cache, which tells so (CacheBarrier).

namespace quendo {

class JobQueingCacheUpdater::Impl : public std::enable_shared_from_this<Impl> {
public:
    Impl(std::shared_ptr<CacheState> state, std::shared_ptr<CMAdapter> adapter,
         std::shared_ptr<CMApplicationInteractor> interactor)
        : m_state(std::move(state)), m_adapter(std::move(adapter)),
          m_interactor(std::move(interactor)),
          m_executor(createStrandExecutor("CMStatusCache_" +
                                          m_adapter->getRootFolder().fileName().toUtf8())) {}

    void submit(std::unique_ptr<CacheUpdateJob> job) {
        std::list<std::unique_ptr<CacheUpdateJob>> entry;
        entry.push_back(std::move(job));
        {
            const auto stateHold = m_stateLock.write();
            if (!m_stopped) {
                if (enqueue(entry))
                    postDrain(entry);
                return;
            }
        }
        entry.front()->completeAll();
    }

    bool join(std::unique_ptr<CacheUpdateJob>& job, const Path& folder, bool folderStatusFlag) {
        // Not into a job that submit() takes back, because no drain can be posted for it.
        const auto stateHold = m_stateLock.write();
        const auto hold = m_queueLock.write();
        const auto host = std::ranges::find_if(m_queue, [&](const auto& queued) {
            return queued->willAnswerFolder(folder, folderStatusFlag);
        });
        if (host == m_queue.end())
            return false;
        (*host)->absorb(*job);
        return true;
    }

    void stop() {
        std::list<std::unique_ptr<CacheUpdateJob>> dropped;
        {
            const auto stateHold = m_stateLock.write();
            m_stopped = true;
            const auto hold = m_queueLock.write();
            dropped.swap(m_queue);
        }
        for (const auto& job : dropped)
            job->completeAll();
    }

    Freshness getFreshness(const Path& path) const {
        const auto hold = m_queueLock.read();
        auto result = m_state->ledger->getFreshness(path);
        if (result.refresh != Freshness::Refresh::Running &&
            std::ranges::any_of(m_queue, [&](const auto& job) { return covers(*job, path); }))
            result.refresh = Freshness::Refresh::Waiting;
        return result;
    }

    const std::shared_ptr<Executor>& executor() const noexcept { return m_executor; }

private:
    static bool covers(const CacheUpdateJob& job, const Path& path) {
        return std::ranges::any_of(job.requests(),
                                   [&](const auto& request) { return request.covers(path); });
    }

    /// @return whether a drain has to be posted
    bool enqueue(std::list<std::unique_ptr<CacheUpdateJob>>& entry) {
        const auto hold = m_queueLock.write();
        if (!m_queue.empty() && m_queue.back()->combinesAtOnce() &&
            m_queue.back()->canCombineWith(*entry.front()))
            m_queue.back()->absorb(*entry.front());
        else
            m_queue.splice(m_queue.end(), entry);
        return !std::exchange(m_drainPending, true);
    }

    /// With the state lock held, so nobody else submits or stops. No drain was pending, so the
    /// queue holds the one job that was just put in.
    void postDrain(std::list<std::unique_ptr<CacheUpdateJob>>& entry) {
        try {
            m_executor->post([weak = weak_from_this()] {
                if (const auto self = weak.lock())
                    self->drainJobQueue();
            });
        } catch (...) {
            const auto hold = m_queueLock.write();
            m_drainPending = false;
            entry.splice(entry.end(), m_queue);
            throw;
        }
    }

    void drainJobQueue() {
        while (const auto job = takeNext())
            job->run(*m_adapter, *m_interactor, m_state->files);
    }

    std::unique_ptr<CacheUpdateJob> takeNext() {
        const auto hold = m_queueLock.write();
        if (m_queue.empty()) {
            m_drainPending = false;
            return nullptr;
        }
        auto current = std::move(m_queue.front());
        m_queue.pop_front();
        while (!m_queue.empty() && current->canCombineWith(*m_queue.front())) {
            current->absorb(*m_queue.front());
            m_queue.pop_front();
        }
        current->start(); // under the lock: a request is waiting or running at any moment
        return current;
    }

    // Constant after construction.
    const std::shared_ptr<CacheState> m_state;
    const std::shared_ptr<CMAdapter> m_adapter;
    const std::shared_ptr<CMApplicationInteractor> m_interactor;
    const std::shared_ptr<Executor> m_executor;

    ReentrantReadWriteLock m_stateLock; ///< before m_queueLock
    bool m_stopped = false;             ///< guarded by m_stateLock

    mutable ReentrantReadWriteLock m_queueLock; ///< before the ledger's
    /// Guarded by m_queueLock. Not empty only while a drain is pending.
    std::list<std::unique_ptr<CacheUpdateJob>> m_queue;
    bool m_drainPending = false; ///< guarded by m_queueLock: posted or running
};

JobQueingCacheUpdater::JobQueingCacheUpdater(std::shared_ptr<CacheState> state,
                                             std::shared_ptr<CMAdapter> adapter,
                                             std::shared_ptr<CMApplicationInteractor> interactor)
    : m_impl(std::make_shared<Impl>(std::move(state), std::move(adapter), std::move(interactor))) {}

JobQueingCacheUpdater::~JobQueingCacheUpdater() {
    m_impl->stop();
}

void JobQueingCacheUpdater::submit(std::unique_ptr<CacheUpdateJob> job) {
    m_impl->submit(std::move(job));
}

bool JobQueingCacheUpdater::join(std::unique_ptr<CacheUpdateJob>& request, const Path& folder,
                                 bool folderStatusFlag) {
    return m_impl->join(request, folder, folderStatusFlag);
}

void JobQueingCacheUpdater::stop() {
    m_impl->stop();
}

Freshness JobQueingCacheUpdater::getFreshness(const Path& path) const {
    return m_impl->getFreshness(path);
}

const std::shared_ptr<Executor>& JobQueingCacheUpdater::executor() const noexcept {
    return m_impl->executor();
}

} // namespace quendo
