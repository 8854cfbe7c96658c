#include "quendo/cache/CacheUpdateJob.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

// What a run does.
//
//   1. If a task is cancelled, the job is skipped: every task ends with success, nobody is told.
//   2. Cancelling a task now stops the query: see Gate.
//   3. tasksStarted
//   4. the query and its merge
//   5. changes, foldersChanged, cacheChanged
//   6. what earlier jobs of this kind left owed (RefreshLedger) is asked for as well: in queries of
//      its own, so that a path that makes the adapter fail spoils nobody's refresh but its own
//   7. tasksFinished, also when something between 3 and 6 has failed
//   8. every task ends
//
// What fails from 3 to 5 fails every task, before 7; a merge that is done stays, and each of the
// three kinds of listeners of 5 hears of it. What a listener of tasksFinished throws is logged. The
// books are kept before a waiter wakes and before listeners hear of it, so both find in
// CMStatusCacheFreshness what has just happened.
//
// Settling must not fail for lack of memory. So whatever it needs stands in lists whose nodes were
// made together with the job, and combining jobs moves nodes.

namespace quendo {

/// Lets the cancelling of a task through to the adapter while its job runs, and no longer. The
/// termination signal carries the origin of this run, so that it stops this query alone; an adapter
/// that does not know of origins is stopped by any signal, so none may be on its way when the next
/// job starts: close() waits for those under way. Threads: any; the job holds it, and so do the
/// slots, because disconnecting does not wait for a slot that runs.
class CacheUpdateJob::Gate {
public:
    explicit Gate(TerminationTrigger& trigger) : m_trigger(trigger) {}

    const std::shared_ptr<QueryOrigin>& origin() const noexcept { return m_origin; }

    void stopQuery() {
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
    const std::shared_ptr<QueryOrigin> m_origin = std::make_shared<QueryOrigin>();
    std::mutex m_mutex;
    std::condition_variable m_left;
    bool m_closed = false;
    int m_inside = 0;
};

CacheUpdateJob::CacheUpdateJob(RefreshRequest request, std::shared_ptr<CacheSignals> signals,
                               std::shared_ptr<RefreshLedger> ledger)
    : m_signals(std::move(signals)), m_ledger(std::move(ledger)) {
    if (request.barrier != nullptr)
        m_tasks.push_back(request.barrier);
    m_requests.push_back(std::move(request));
}

CacheUpdateJob::~CacheUpdateJob() = default;

void CacheUpdateJob::absorb(CacheUpdateJob& other) noexcept {
    m_requests.splice(m_requests.end(), other.m_requests);
    m_tasks.splice(m_tasks.end(), other.m_tasks);
}

bool CacheUpdateJob::isCancelled() const noexcept {
    return !std::ranges::all_of(m_tasks, [](const auto& task) { return task->isActive(); });
}

CacheUpdateJob::Connections CacheUpdateJob::onCancel(CMApplicationInteractor& interactor) {
    m_gate = std::make_shared<Gate>(interactor.getTerminationTrigger());
    Connections connections;
    connections.reserve(m_tasks.size());
    for (const auto& task : m_tasks)
        connections.emplace_back(task->connectCancel([gate = m_gate] { gate->stopQuery(); }));
    return connections;
}

void CacheUpdateJob::run(CMAdapter& adapter, CMApplicationInteractor& interactor,
                         TransactionalFileCache<FileState>& cache) noexcept {
    start();
    const auto giveUp = [&] {
        const auto failure = std::current_exception();
        m_ledger->fail(failure);
        failAll(failure);
    };
    try {
        const CMStatusCache::Tasks tasks(m_tasks.begin(), m_tasks.end());
        // Whoever cancels after the second test finds the handlers in place.
        if (isCancelled())
            m_ledger->skip();
        else if (const auto connections = onCancel(interactor); isCancelled())
            m_ledger->skip();
        else {
            try {
                m_signals->tasksStarted(tasks);
                runUntilMerged(adapter, cache);
                tellMerged();
                runOwed(adapter, cache);
            } catch (...) {
                giveUp();
            }
            tellFinished(tasks);
        }
    } catch (...) {
        giveUp();
    }
    completeAll();
    if (m_gate != nullptr)
        m_gate->close();
}

void CacheUpdateJob::runUntilMerged(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) {
    // A signal that was given before the adapter listens would be lost.
    if (m_gate->origin()->isCancelled())
        throw exception::OperationCancelledError("the refresh was cancelled");
    const auto queryStart = std::chrono::steady_clock::now();
    {
        const QueryOrigin::WorkScope scope(m_gate->origin());
        runSpecialization(adapter, cache);
    }
    m_ledger->succeed(queryStart);
}

void CacheUpdateJob::runOwed(CMAdapter& adapter,
                             TransactionalFileCache<FileState>& cache) noexcept {
    for (auto rounds = m_ledger->owedRounds(isOfFolder()); rounds != 0; --rounds) {
        if (m_gate->origin()->isCancelled() || !m_ledger->retry(isOfFolder()))
            return;
        try {
            const auto queryStart = std::chrono::steady_clock::now();
            {
                const QueryOrigin::WorkScope scope(m_gate->origin());
                answerOwed(adapter, cache);
            }
            m_ledger->succeed(queryStart);
            tellMerged();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // nobody else has it yet
            m_ledger->fail(std::current_exception());
        }
    }
}

CacheUpdateJob::Transaction
CacheUpdateJob::beginTransaction(TransactionalFileCache<FileState>& cache) const {
    return Transaction(cache, !m_signals->changes.empty());
}

void CacheUpdateJob::commit(Transaction& transaction) {
    transaction.commit();
    // Who has connected since the transaction began may have listed what was there before.
    if (!m_signals->changes.empty())
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
    if (!changes.changes.empty())
        tell(m_signals->changes, changes);
    if (!folderSetChange.appeared.empty() || !folderSetChange.vanished.empty())
        tell(m_signals->foldersChanged, folderSetChange);
    tell(m_signals->cacheChanged);
    if (failure != nullptr)
        std::rethrow_exception(failure);
}

void CacheUpdateJob::tellFinished(const CMStatusCache::Tasks& tasks) noexcept {
    try {
        m_signals->tasksFinished(tasks);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

void CacheUpdateJob::failAll(const std::exception_ptr& failure) noexcept {
    for (const auto& task : m_tasks) {
        try {
            task->fail(failure);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }
}

void CacheUpdateJob::completeAll() noexcept {
    for (const auto& task : m_tasks) {
        try {
            task->complete();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }
}

} // namespace quendo
