#include "quendo/cache/JobQueingCacheUpdater.h"

#include "quendo/adapter/BackgroundTurns.h"
#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/FileCacheUpdateJob.h"
#include "quendo/cache/FolderCacheUpdateJob.h"
#include "quendo/cache/RunningQuery.h"
#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/ReentrantReadWriteLock.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <chrono>
#include <list>
#include <set>
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
// result is the same, and no list of ten thousand jobs has to be walked under the lock. So does a
// folder job for the same folder. Joining moves nodes, so it cannot fail, and a job holds each path
// once.
//
// Bounds. The memory of the queue must grow with the number of tasks that clients hold, and not
// with the number of requests. So
//
// - a job forgets the tasks that nobody holds whenever their number has doubled;
// - of more than `mostJobs` jobs the order is given up: a request joins any job that answers it;
// - where files beyond RetryPlan::mostFiles, or folders beside each other in more than twice
//   `mostJobs` jobs, have gathered for which nobody holds a task, a few common folders represent
//   them.
//
// Retries. What was not answered stands in the ledger (RetryPlan.cpp) and not in the queue. The
// drain takes what is due when the queue is empty, so that a retry delays no waiter; while the
// queue is never empty it takes a retry between two jobs, once that is overdue by a second. When
// the drain has nothing to do, it has the service for delayed tasks wake it at the next due time.
// A delayed task cannot be taken back: none is started while one is on its way that comes as early,
// and one that finds nothing due starts the next. A delayed task counts as on time whenever it
// comes: with a service that does not wait, the order of retries stays what it is.
//
// Turns. A queue that holds background jobs only, or a retry, waits for a turn of BackgroundTurns
// without a thread; a turn is for one job. A requested job does not wait for one, nor do the jobs
// in front of it, since their order stays: they count as requested from then on. While it waits
// behind a background job that runs, that job may be interrupted. The turn is held while listeners
// run; it is lost, and others are granted theirs, when one of them hangs. A drain that has lost its
// turn, or has used it for a requested job, requests another one for what is left.
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

namespace {

constexpr std::size_t mostJobs = 256;
constexpr std::chrono::seconds mostOverdue{1};

} // namespace

class JobQueingCacheUpdater::Impl : public std::enable_shared_from_this<Impl> {
public:
    Impl(std::shared_ptr<CacheState> state, std::shared_ptr<CMAdapter> adapter,
         std::shared_ptr<CMApplicationInteractor> interactor)
        : m_state(std::move(state)), m_adapter(std::move(adapter)),
          m_interactor(std::move(interactor)), m_root(m_adapter->getRootFolder()),
          m_executor(createStrandExecutor("CMStatusCache_" + m_root.fileName().toUtf8())) {}

    /// Once, before anything else.
    void connect() {
        const auto weak = weak_from_this();
        m_turns = m_allTurns->addClient({[weak] {
                                             if (const auto self = weak.lock())
                                                 self->turnGranted();
                                         },
                                         [weak](std::uint64_t turn) {
                                             if (const auto self = weak.lock())
                                                 self->m_running.interrupt(turn);
                                         }});
    }

    void submit(std::unique_ptr<CacheUpdateJob> job) {
        Jobs entry;
        entry.push_back(std::move(job));
        bool isQueued = false, isBackground = false;
        {
            const auto stateHold = m_stateLock.write();
            if (!m_stopped) {
                isBackground = entry.front()->urgency() == QueryUrgency::Background;
                isQueued = true;
                if (enqueue(entry))
                    postDrain(entry);
            }
        }
        if (!isQueued)
            entry.front()->stop();
        else if (isBackground)
            m_turns->request(); // without a lock: the turn of another cache may be granted in it
        else
            noteWaiting();
    }

    bool join(std::unique_ptr<CacheUpdateJob>& job, const Path& folder, bool folderStatusFlag) {
        {
            // Not into a job that submit() takes back, because no drain can be posted for it.
            const auto stateHold = m_stateLock.write();
            auto hold = m_queueLock.write();
            const auto host = std::ranges::find_if(m_queue, [&](const auto& queued) {
                return queued->willAnswerFolder(folder, folderStatusFlag);
            });
            if (host == m_queue.end())
                return false;
            absorb(**host, *job);
            // Background work that is requested now waits for no turn.
            const bool isPosted = !hasRequested() || std::exchange(m_drainPending, true);
            hold.release();
            // Without a drain the queue waits for a turn, so postDrain() takes nothing back.
            if (Jobs none; !isPosted)
                postDrain(none);
        }
        noteWaiting();
        return true;
    }

    void stop() {
        Jobs dropped;
        {
            const auto stateHold = m_stateLock.write();
            m_stopped = true;
            m_state->books.ledger->stop();
            const auto hold = m_queueLock.write();
            dropped.swap(m_queue);
        }
        m_turns->end();
        for (const auto& job : dropped)
            job->stop();
    }

    Freshness getFreshness(const Path& path) const {
        const auto hold = m_queueLock.read();
        auto result = m_state->books.ledger->getFreshness(path);
        for (const auto& job : m_queue) {
            const auto* pending = job->find(path);
            if (pending == nullptr)
                continue;
            if (result.refresh != Freshness::Refresh::Running)
                result.refresh = Freshness::Refresh::Waiting;
            Staleness waiting;
            waiting.since = pending->since;
            waiting.reason = pending->reason;
            include(result.staleness, waiting);
        }
        return result;
    }

    std::optional<Staleness> getStaleness() const {
        const auto hold = m_queueLock.read();
        auto result = m_state->books.ledger->getStaleness();
        for (const auto& job : m_queue)
            include(result, job->staleness());
        return result;
    }

    CacheStatistics getStatistics() const {
        auto result = m_state->books.statistics->get();
        const auto hold = m_queueLock.read();
        result.queuedRefreshes = m_queue.size();
        for (const auto& job : m_queue)
            result.queuedPaths += job->paths().size();
        result.retryPaths = m_state->books.ledger->retryPathCount();
        if (const auto next = m_state->books.ledger->nextRetry())
            result.nextRetry = std::chrono::system_clock::now() +
                               std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                   std::max(*next - Clock::now(), Clock::duration::zero()));
        return result;
    }

    const std::shared_ptr<Executor>& executor() const noexcept { return m_executor; }

private:
    using Clock = std::chrono::steady_clock;
    using Jobs = std::list<std::unique_ptr<CacheUpdateJob>>;

    /// @return whether a drain has to be posted; otherwise one is pending, or the job waits for a
    ///         turn
    bool enqueue(Jobs& entry) {
        const auto hold = m_queueLock.write();
        auto& job = *entry.front();
        auto host = m_queue.end();
        if (!m_queue.empty() && m_queue.back()->canAbsorbAtOnce(job))
            host = std::prev(host);
        else if (m_queue.size() >= mostJobs)
            host = std::ranges::find_if(m_queue, [&](auto& each) { return each->willAnswer(job); });
        if (host != m_queue.end()) {
            absorb(**host, job);
        } else {
            m_queue.splice(m_queue.end(), entry);
            host = std::prev(m_queue.end());
        }
        limitQueue(**host);
        if (!hasRequested()) {
            if (m_turn == Turn::None)
                m_turn = Turn::Requested;
            return false;
        }
        return !std::exchange(m_drainPending, true);
    }

    /// Has a background query of this cache interrupted in time where requested work is behind it.
    void noteWaiting() {
        {
            const auto hold = m_queueLock.write();
            if (!m_isRunningBackground || !hasRequested())
                return;
        }
        m_turns->noteAwaited(); // may interrupt
    }

    /// With the queue's lock held.
    bool hasRequested() const noexcept {
        return std::ranges::any_of(
            m_queue, [](const auto& job) { return job->urgency() == QueryUrgency::Requested; });
    }

    /// With the queue's lock held.
    static void absorb(CacheUpdateJob& host, CacheUpdateJob& job) noexcept {
        host.absorb(job);
        if (host.taskCount() > host.checkAt.tasks) {
            host.dropUnheldTasks();
            host.checkAt.tasks = std::max<std::size_t>(mostJobs, 2 * host.taskCount());
        }
    }

    /// With the queue's lock held: lets common folders represent what nobody holds a task for,
    /// where `changed` has become too large or the jobs for folders too many.
    void limitQueue(CacheUpdateJob& changed) noexcept {
        if (m_queue.size() <= m_checkJobsAt && changed.paths().size() <= changed.checkAt.paths)
            return;
        const bool ofFolders = m_queue.size() > m_checkJobsAt;
        const auto concerned = [&](const CacheUpdateJob& job) {
            return ofFolders ? job.isOfFolder() : &job == &changed;
        };
        try {
            PendingPaths all;
            for (const auto& job : m_queue) {
                if (!concerned(*job))
                    continue;
                job->dropUnheldTasks();
                auto unheld = job->unheldPaths();
                all.absorb(unheld);
            }
            const auto folders = commonFolders(all, m_root, RetryPlan::commonFolderLimit);
            Jobs common;
            for (const auto& [folder, pending] : folders.map()) {
                RefreshRequest request;
                request.folder = folder;
                request.folderStatusFlag = pending.folderStatusFlag;
                request.reason = pending.reason;
                request.since = pending.since;
                common.push_back(
                    std::make_unique<FolderCacheUpdateJob>(std::move(request), m_state->books));
            }
            for (const auto& job : m_queue) {
                if (concerned(*job))
                    job->forgetUnheldPaths();
            }
            changed.checkAt.paths = std::max(RetryPlan::mostFiles, 2 * changed.paths().size());
            m_queue.remove_if([](const auto& job) { return job->paths().empty(); });
            for (const auto& job : common) {
                const auto host = std::ranges::find_if(
                    m_queue, [&](const auto& each) { return each->willAnswer(*job); });
                if (host != m_queue.end())
                    absorb(**host, *job);
            }
            common.remove_if([](const auto& job) { return job->paths().empty(); });
            m_queue.splice(m_queue.end(), common);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // it is tried again with the next request
        }
        m_checkJobsAt = std::max(2 * mostJobs, 2 * m_queue.size());
    }

    /// With the state lock held, so nobody else submits or stops. No drain was pending.
    void postDrain(Jobs& entry) {
        try {
            post();
        } catch (...) {
            const auto hold = m_queueLock.write();
            m_drainPending = false;
            if (m_turn != Turn::None)
                return; // the turn for which the queue waits tries again
            entry.splice(entry.end(), m_queue);
            throw;
        }
    }

    void post() {
        m_executor->post([weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->drainJobQueue();
        });
    }

    void drainJobQueue() {
        bool wantsTurn = false;
        for (auto job = takeNext(wantsTurn); !job.empty(); job = takeNext(wantsTurn)) {
            m_running.begin(m_turns->turn());
            job.front()->setRunningQuery(&m_running);
            job.front()->run(*m_adapter, *m_interactor, m_state->files);
            endTurn(m_running.takeInterrupted());
            if (job.front()->isCarriedOver())
                putBack(job);
            job.clear();
            tellRetries();
        }
        endTurn(false);
        if (wantsTurn)
            m_turns->request(); // the drain that follows starts the timer
        else
            startTimer();
    }

    /// Gives the turn back if there is one, and requests the next where one is needed.
    void endTurn(bool wasInterrupted) {
        bool wantsTurn = false;
        {
            const auto hold = m_queueLock.write();
            if (m_turn != Turn::Granted)
                return;
            wantsTurn = isRetryDue() || (!m_queue.empty() && !hasRequested());
            m_turn = wantsTurn ? Turn::Requested : Turn::None;
        }
        m_turns->end(wasInterrupted);
        if (wantsTurn)
            m_turns->request();
    }

    /// On a thread of whoever ended the turn before, or of the delay service.
    void turnGranted() {
        const auto stateHold = m_stateLock.write();
        {
            const auto hold = m_queueLock.write();
            m_turn = Turn::Granted;
            if (std::exchange(m_drainPending, true))
                return; // it takes the turn, or gives it back when it ends
        }
        try {
            post();
        } catch (...) {
            const auto hold = m_queueLock.write();
            m_drainPending = false;
            m_turn = Turn::Requested; // it is granted again
            throw;
        }
    }

    /// @param wantsTurn set when the list is empty: whether background work waits for a turn
    /// @return the job that runs next, or an empty list: the drain has ended
    Jobs takeNext(bool& wantsTurn) {
        Jobs taken;
        const auto hold = m_queueLock.write();
        m_isRunningBackground = false;
        const bool isRequested = hasRequested();
        const bool isRetryDue = this->isRetryDue();
        const bool hasTurn = m_turn == Turn::Granted && m_turns->turn() != 0;
        if (!hasTurn && !isRequested) {
            m_drainPending = false;
            wantsTurn = !m_queue.empty() || isRetryDue;
            if (m_turn != Turn::Granted) // endTurn() is told of one that was lost
                m_turn = wantsTurn ? Turn::Requested : Turn::None;
            if (!wantsTurn)
                m_wokenTo = {};
            return taken;
        }
        if (hasTurn && isRetryDue && takeRetry(taken)) {
            m_isRunningBackground = true;
            return taken;
        }
        if (m_queue.empty()) {
            m_drainPending = false;
            m_wokenTo = {};
            return taken;
        }
        taken.splice(taken.end(), m_queue, m_queue.begin());
        auto& current = *taken.front();
        while (!m_queue.empty() && current.canCombineWith(*m_queue.front())) {
            current.absorb(*m_queue.front());
            m_queue.pop_front();
        }
        if (isRequested)
            current.makeRequested();
        m_isRunningBackground = !isRequested;
        current.start(); // under the lock: a request is waiting or running at any moment
        return taken;
    }

    /// With the queue's lock held.
    bool isRetryDue() const {
        const auto next = m_state->books.ledger->nextRetry();
        return next && *next <= m_wokenTo;
    }

    /// With the queue's lock held, and a retry due.
    bool takeRetry(Jobs& taken) {
        auto& ledger = *m_state->books.ledger;
        // The jobs that waiters wait for go first, but not for ever.
        const auto now = Clock::now();
        if (!m_queue.empty() && now < m_retryDueSince.value_or(now) + mostOverdue) {
            m_retryDueSince = m_retryDueSince.value_or(now);
            return false;
        }
        m_retryDueSince.reset();
        RetrySets set;
        if (!ledger.takeDue(m_wokenTo, set))
            return false;
        try {
            if (set.front().isOfFolder)
                taken.push_back(std::make_unique<FolderCacheUpdateJob>(set, m_state->books));
            else
                taken.push_back(std::make_unique<FileCacheUpdateJob>(set, m_state->books));
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            ledger.putBack(set);
            return false;
        }
        taken.front()->start();
        return true;
    }

    /// Has a job run again whose tasks were carried over.
    void putBack(Jobs& job) {
        const auto stateHold = m_stateLock.write();
        if (m_stopped) {
            job.front()->stop();
            return;
        }
        const auto hold = m_queueLock.write();
        m_queue.splice(m_queue.begin(), job);
    }

    void tellRetries() noexcept {
        try {
            if (const auto changed = m_state->books.ledger->takeRetryChange())
                m_state->books.signals->stalenessChanged(*changed);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }

    /// Has the drain woken when the next retry is due.
    void startTimer(std::chrono::milliseconds delay = {}) noexcept {
        std::optional<Clock::time_point> at;
        try {
            {
                const auto hold = m_queueLock.write();
                at = m_state->books.ledger->nextRetry();
                if (!at || (!m_timers.empty() && *m_timers.begin() <= *at))
                    return;
                delay = std::max(delay,
                                 std::chrono::ceil<std::chrono::milliseconds>(*at - Clock::now()));
                m_timers.insert(*at);
            }
            m_services->delayedTasks->runAfter(delay, [weak = weak_from_this(), at = *at] {
                if (const auto self = weak.lock())
                    self->wake(at);
            });
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // the next drain starts it
            const auto hold = m_queueLock.write();
            if (at)
                m_timers.erase(*at);
        }
    }

    /// On a thread of the delay service.
    void wake(Clock::time_point at) {
        {
            const auto stateHold = m_stateLock.write();
            const auto hold = m_queueLock.write();
            m_timers.erase(at);
            m_wokenTo = std::max(m_wokenTo, at);
            if (m_stopped)
                return;
            if (m_turn == Turn::None)
                m_turn = Turn::Requested;
        }
        m_turns->request();
    }

    // Constant after construction.
    const std::shared_ptr<CacheState> m_state;
    const std::shared_ptr<CMAdapter> m_adapter;
    const std::shared_ptr<CMApplicationInteractor> m_interactor;
    const Path m_root;
    const std::shared_ptr<Executor> m_executor;
    const std::shared_ptr<const platform::Services> m_services = platform::services();

    const std::shared_ptr<BackgroundTurns> m_allTurns =
        BackgroundTurns::of(getSourceControlExecutor());

    RunningQuery m_running{
        [this](std::uint64_t turn) { return turn != 0 && m_turns->turn() == turn; }};
    std::unique_ptr<BackgroundTurns::Client> m_turns; ///< constant after connect()

    ReentrantReadWriteLock m_stateLock; ///< before m_queueLock
    bool m_stopped = false;             ///< guarded by m_stateLock

    mutable ReentrantReadWriteLock m_queueLock; ///< before the ledger's
    // Guarded by m_queueLock.
    Jobs m_queue; ///< not empty only while a drain is pending or a turn is requested
    enum class Turn { None, Requested, Granted } m_turn = Turn::None;
    bool m_drainPending = false;        ///< posted or running
    bool m_isRunningBackground = false; ///< the drain
    /// Since when a retry that is due has waited for the queue.
    std::optional<Clock::time_point> m_retryDueSince;
    std::size_t m_checkJobsAt = 2 * mostJobs;
    std::set<Clock::time_point> m_timers; ///< that are on their way
    Clock::time_point m_wokenTo{};        ///< the latest that has come for this drain
};

JobQueingCacheUpdater::JobQueingCacheUpdater(std::shared_ptr<CacheState> state,
                                             std::shared_ptr<CMAdapter> adapter,
                                             std::shared_ptr<CMApplicationInteractor> interactor)
    : m_impl(std::make_shared<Impl>(std::move(state), std::move(adapter), std::move(interactor))) {
    m_impl->connect();
}

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

std::optional<Staleness> JobQueingCacheUpdater::getStaleness() const {
    return m_impl->getStaleness();
}

CacheStatistics JobQueingCacheUpdater::getStatistics() const {
    return m_impl->getStatistics();
}

const std::shared_ptr<Executor>& JobQueingCacheUpdater::executor() const noexcept {
    return m_impl->executor();
}

} // namespace quendo
