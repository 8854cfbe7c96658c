#include "quendo/cache/CacheUpdateJob.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/cache/RunningQuery.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unordered_set>
#include <utility>

// What a run does.
//
//   1. If a task is cancelled, the job is skipped: every task ends with success, no listener is
//      called.
//   2. Cancelling a task now stops the query: see Gate.
//   3. tasksStarted
//   4. the query and its merge
//   5. changes, foldersChanged, cacheChanged
//   6. tasksFinished, also when something between 3 and 5 has failed
//   7. every task ends, but for those that are carried over
//
// What fails from 3 to 5 fails every task, before 6; a merge that is done stays, and every listener
// of each of the three kinds of 5 is called. What a listener of tasksFinished throws is logged. The
// ledger is updated before a waiter wakes and before listeners are called, so both find in
// CMStatusCacheFreshness what has just happened.
//
// What was not answered. A job ends without an answer when it was skipped, when its query failed,
// when one of its tasks was cancelled while the query ran, or when a background query was
// interrupted: somebody else cancelled its origin, because other work waited, or its turn was lost
// while a listener of tasksStarted ran. The ledger has all of its paths retried but those whose own
// tasks were cancelled. An interrupted job's tasks end as those of a skipped one.
//
// Carried over. A task that is required (requireFreshFile, requireFreshFolder, the wait at the end
// of an own operation) must not succeed without an answer, and must not fail because a task that
// was combined with it was cancelled. So, unless its query failed by itself, it stays with its
// job, which runs once more at once, and joins no other job from then on: only the tasks that are
// carried over with it can end it early again, and each that does leaves the job. Interruptions are
// counted besides, and after `mostCarriedOver` the task fails. A required task that nobody holds is
// not carried over but retried as the others.
//
// Settling must not fail for lack of memory. So whatever it needs stands in lists and maps whose
// nodes were made together with the job, and combining jobs moves nodes. The nodes for what is to
// be retried are made with the job as well (m_sets).

namespace quendo {
namespace {

constexpr int mostCarriedOver = 8;

/// Of files some may be retried and some carried over; of folders each is one or the other.
std::size_t setsFor(bool folders, std::size_t paths) noexcept {
    return folders ? paths : 2;
}

std::exception_ptr errorOf(const char* what) noexcept {
    try {
        return std::make_exception_ptr(exception::OperationCancelledError(what));
    } catch (...) {
        return std::current_exception();
    }
}

/// Settles `task`, with success when `failure` is null.
void end(CacheBarrier& task, const std::exception_ptr& failure) noexcept {
    try {
        failure != nullptr ? task.fail(failure) : task.complete();
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

} // namespace

/// Lets the cancelling of a task through to the adapter while its job runs, and no longer. The
/// termination signal carries the origin of this run, so that it stops this query alone; an adapter
/// that does not know of origins is stopped by any signal, so none may be on its way when the next
/// job starts: close() waits for those under way. Threads: any; the job holds it, and so do the
/// slots, because disconnecting does not wait for a slot that runs.
class CacheUpdateJob::Gate {
public:
    Gate(TerminationTrigger& trigger, QueryUrgency urgency)
        : m_trigger(trigger), m_origin(std::make_shared<QueryOrigin>(urgency)) {}

    const std::shared_ptr<QueryOrigin>& origin() const noexcept { return m_origin; }

    /// Whether stopQuery() has cancelled the origin, and nobody else.
    bool isStoppedByTask() const noexcept { return m_isStoppedByTask.load(); }

    /// For a task that was cancelled.
    void stopQuery() { stop(true); }
    /// For others that have waited long enough.
    void interrupt() { stop(false); }

    void stop(bool byTask) {
        {
            const std::lock_guard lock(m_mutex);
            if (m_closed)
                return;
            ++m_inside;
        }
        struct Leave {
            Gate& gate;
            ~Leave() {
                const std::lock_guard lock(gate.m_mutex);
                --gate.m_inside;
                gate.m_left.notify_all();
            }
        } const leave{*this};
        if (byTask)
            m_isStoppedByTask.store(true);
        m_origin->cancel();
        const QueryOrigin::TriggerScope scope(*m_origin);
        m_trigger.trigger();
    }

    void close() noexcept {
        std::unique_lock lock(m_mutex);
        m_closed = true;
        // Listeners of the termination signal are quick; one that hangs must not hang the cache.
        if (!m_left.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::seconds(10),
                               [&] { return m_inside == 0; })) {
            QUENDO_LOG(Severity::Notice)
                << "A listener of the termination signal has not come back for 10 seconds.";
        }
    }

private:
    TerminationTrigger& m_trigger; // valid until close() has returned
    const std::shared_ptr<QueryOrigin> m_origin;
    std::atomic<bool> m_isStoppedByTask{false};
    std::mutex m_mutex;
    std::condition_variable m_left;
    bool m_closed = false;
    int m_inside = 0;
};

CacheUpdateJob::CacheUpdateJob(RefreshRequest request, CacheBooks books)
    : m_books(std::move(books)), m_paths(request), m_sets(setsFor(request.isOfFolder(), 1)),
      m_reason(request.reason), m_isRequested(quendo::isRequested(request.reason)),
      m_since(request.since) {
    m_sets.front().isOfFolder = request.isOfFolder();
    m_requests.push_back(std::move(request));
}

CacheUpdateJob::CacheUpdateJob(RetrySets& set, CacheBooks books)
    : m_books(std::move(books)), m_reason(RefreshReason::Retry), m_isRequested(false),
      m_isAlone(true), m_since(set.front().paths.oldest()->since) {
    m_sets.splice(m_sets.end(), set);
    m_paths.absorb(m_sets.front().paths);
}

CacheUpdateJob::~CacheUpdateJob() = default;

void CacheUpdateJob::absorb(CacheUpdateJob& other) noexcept {
    m_paths.absorb(other.m_paths);
    m_sets.splice(m_sets.end(), other.m_sets);
    while (m_sets.size() > setsFor(isOfFolder(), m_paths.size()))
        m_sets.pop_back();
    m_requests.splice(m_requests.end(), other.m_requests);
    m_reason = std::min(m_reason, other.m_reason);
    m_isRequested = m_isRequested || other.m_isRequested;
    m_hasCancelled = m_hasCancelled || other.m_hasCancelled;
    m_since = std::min(m_since, other.m_since);
}

Staleness CacheUpdateJob::staleness() const noexcept {
    Staleness result;
    result.since = m_since;
    result.reason = m_reason;
    return result;
}

void CacheUpdateJob::dropUnheldTasks() noexcept {
    for (auto at = m_requests.begin(); at != m_requests.end();) {
        const auto each = at++;
        const bool isActive = each->barrier == nullptr || each->barrier->isActive();
        // Who holds a task weakly must not be left with one that nobody settles.
        const std::weak_ptr<CacheBarrier> weak = each->barrier;
        each->barrier.reset();
        each->barrier = weak.lock();
        if (each->barrier != nullptr)
            continue;
        if (isActive && each->isOfFolder())
            m_paths.markWanted(each->folder);
        for (const auto& file : each->files) {
            if (isActive)
                m_paths.markWanted(file);
        }
        m_hasCancelled = m_hasCancelled || !isActive;
        m_requests.erase(each);
    }
}

PendingPaths CacheUpdateJob::unheldPaths() const {
    std::unordered_set<Path> held;
    for (const auto& request : m_requests) {
        if (request.isOfFolder())
            held.insert(request.folder);
        held.insert(request.files.begin(), request.files.end());
    }
    PendingPaths unheld(m_paths);
    for (const auto& path : held)
        unheld.erase(path);
    return unheld;
}

void CacheUpdateJob::forgetUnheldPaths() noexcept {
    for (const auto& request : m_requests) {
        if (request.isOfFolder())
            m_paths.markCarriedOver(request.folder);
        for (const auto& file : request.files)
            m_paths.markCarriedOver(file);
    }
    PendingPaths unheld;
    m_paths.moveIf(
        unheld, [](const Path&, auto& path) { return !std::exchange(path.isCarriedOver, false); });
}

bool CacheUpdateJob::isCancelled() const noexcept {
    return m_hasCancelled || !std::ranges::all_of(m_requests, [](const auto& request) {
               return request.barrier == nullptr || request.barrier->isActive();
           });
}

CacheStatistics::Target CacheUpdateJob::target() const noexcept {
    const auto& paths = ledger().running();
    return {isOfFolder(), paths.empty() ? Path() : paths.map().begin()->first, paths.size()};
}

CacheUpdateJob::Connections CacheUpdateJob::onCancel(CMApplicationInteractor& interactor) {
    m_gate = std::make_shared<Gate>(interactor.getTerminationTrigger(), urgency());
    Connections connections;
    connections.reserve(m_requests.size());
    for (const auto& request : m_requests) {
        if (request.barrier != nullptr)
            connections.emplace_back(
                request.barrier->connectCancel([gate = m_gate] { gate->stopQuery(); }));
    }
    return connections;
}

void CacheUpdateJob::run(CMAdapter& adapter, CMApplicationInteractor& interactor,
                         TransactionalFileCache<FileState>& cache) noexcept {
    start();
    m_isAnswered = false;
    m_failure = nullptr;
    m_queryStart = std::chrono::steady_clock::now();
    m_books.statistics->begin(m_reason, urgency(), target());
    const auto catchFailure = [&] {
        const auto failure = std::current_exception();
        const bool isStopped = m_gate != nullptr && m_gate->origin()->isCancelled();
        const bool isInterrupted = isStopped && !m_gate->isStoppedByTask() && [&] {
            try {
                std::rethrow_exception(failure);
            } catch (const exception::OperationCancelledError&) {
                return true;
            } catch (...) {
                return false;
            }
        }();
        if (m_requests.empty() && !isInterrupted)
            QUENDO_LOG_CAUGHT_EXCEPTION(); // no task carries it to somebody
        giveUp(isInterrupted                            ? Result::Interrupted
               : isStopped && m_gate->isStoppedByTask() ? Result::Cancelled
                                                        : Result::Failed,
               failure);
    };
    try {
        CMStatusCache::Tasks tasks;
        tasks.reserve(m_requests.size());
        for (const auto& request : m_requests) {
            if (request.barrier != nullptr)
                tasks.push_back(request.barrier);
        }
        // Whoever cancels after the second test finds the handlers in place.
        if (isCancelled())
            giveUp(Result::Skipped, nullptr);
        else if (const auto connections = onCancel(interactor); isCancelled())
            giveUp(Result::Skipped, nullptr);
        else {
            try {
                m_books.signals->tasksStarted(tasks);
                runUntilMerged(adapter, cache);
                tellMerged();
            } catch (...) {
                catchFailure();
            }
            tellFinished(tasks);
        }
    } catch (...) {
        catchFailure();
    }
    settle();
    if (m_gate != nullptr)
        m_gate->close();
    m_gate.reset();
}

void CacheUpdateJob::runUntilMerged(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) {
    struct Clear {
        void operator()(RunningQuery* query) const noexcept { query->clear(); }
    };
    std::unique_ptr<RunningQuery, Clear> running;
    if (urgency() == QueryUrgency::Background)
        running.reset(m_runningQuery);
    // Without its turn it ends as an interrupted one, and is retried.
    if (running != nullptr && !running->set([gate = m_gate] { gate->interrupt(); }))
        m_gate->origin()->cancel();
    // A signal that was given before the adapter listens would be lost.
    if (m_gate->origin()->isCancelled())
        throw exception::OperationCancelledError("the refresh was cancelled");
    m_queryStart = std::chrono::steady_clock::now();
    {
        const QueryOrigin::WorkScope scope(m_gate->origin());
        runSpecialization(adapter, cache);
    }
    m_books.statistics->end(Result::Succeeded, nullptr);
    m_books.ledger->succeed(m_queryStart);
    m_isAnswered = true;
}

/// Has the ledger retry what was not answered, and decides how the tasks end.
void CacheUpdateJob::giveUp(Result result, const std::exception_ptr& failure) noexcept {
    m_books.statistics->end(result, failure);
    if (result == Result::Failed || result == Result::Cancelled)
        m_failure = failure;
    if (m_isAnswered)
        return;
    bool isCarriedOver = false;
    for (auto& request : m_requests) {
        // Held by more than this job and the list of the tasks of this run.
        request.isCarriedOver = result != Result::Failed && request.isRequired &&
                                request.barrier != nullptr && request.barrier->isActive() &&
                                request.barrier.use_count() > 2 &&
                                request.carriedOver++ < mostCarriedOver;
        isCarriedOver = isCarriedOver || request.isCarriedOver;
    }
    const auto cause = result == Result::Failed        ? Staleness::Cause::Failed
                       : result == Result::Interrupted ? Staleness::Cause::Interrupted
                                                       : Staleness::Cause::Skipped;
    m_books.ledger->giveUp(m_requests, cause, result == Result::Failed ? failure : nullptr,
                           std::chrono::steady_clock::now() - m_queryStart, m_paths, m_sets);
    if (isCarriedOver) {
        m_isAlone = true;
        m_isRequested = true;
        m_hasCancelled = false;
    }
}

CacheUpdateJob::Transaction
CacheUpdateJob::beginTransaction(TransactionalFileCache<FileState>& cache) const {
    return Transaction(cache, !m_books.signals->changes.empty());
}

void CacheUpdateJob::commit(Transaction& transaction) {
    transaction.commit();
    // Who has connected since the transaction began may have listed what was there before.
    if (!m_books.signals->changes.empty())
        transaction.recordNow();
    m_changes = transaction.takeChanges();
    m_folderSetChange = transaction.takeFolderSetChange();
}

void CacheUpdateJob::tellMerged() {
    const auto changes = std::exchange(m_changes, {});
    const auto folderSetChange = std::exchange(m_folderSetChange, {});
    // A listener of one kind that throws must not leave a gap for those of the others.
    std::exception_ptr failure;
    const auto tell = [&](const auto& signal, const auto&... what) {
        try {
            signal(what...);
        } catch (...) {
            if (failure != nullptr)
                QUENDO_LOG_CAUGHT_EXCEPTION();
            else
                failure = std::current_exception();
        }
    };
    const auto& signals = *m_books.signals;
    if (!changes.changes.empty())
        tell(signals.changes, changes);
    if (!folderSetChange.appeared.empty() || !folderSetChange.vanished.empty())
        tell(signals.foldersChanged, folderSetChange);
    tell(signals.cacheChanged);
    if (failure != nullptr)
        std::rethrow_exception(failure);
}

void CacheUpdateJob::tellFinished(const CMStatusCache::Tasks& tasks) noexcept {
    try {
        m_books.signals->tasksFinished(tasks);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

/// Ends the tasks that are not carried over, and forgets their requests.
void CacheUpdateJob::settle() noexcept {
    for (auto at = m_requests.begin(); at != m_requests.end();) {
        const auto each = at++;
        if (std::exchange(each->isCarriedOver, false))
            continue;
        if (each->barrier != nullptr) {
            const bool isUnanswered =
                !m_isAnswered && each->isRequired && each->barrier->isActive();
            if (m_failure != nullptr)
                end(*each->barrier, m_failure);
            else if (isUnanswered && each->carriedOver > mostCarriedOver)
                end(*each->barrier, errorOf("the refresh was stopped again and again by requests "
                                            "that were combined with it; request it once more"));
            else
                end(*each->barrier, nullptr);
        }
        m_requests.erase(each);
    }
}

void CacheUpdateJob::stop() noexcept {
    for (const auto& request : m_requests) {
        if (request.barrier != nullptr)
            end(*request.barrier,
                request.isRequired && request.barrier->isActive()
                    ? errorOf("the status cache was stopped before it refreshed what was required")
                    : nullptr);
    }
    m_requests.clear();
}

} // namespace quendo
