#pragma once

#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/RefreshRequest.h"
#include "quendo/cache/RetryPlan.h"
#include "quendo/platform/Path.h"

#include <chrono>
#include <cstddef>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace quendo {

namespace platform {
class FileUtilities;
}

/// Tracks what is being queried, what was answered when, and what is to be retried.
///
/// Any answer that covers a path takes it out of what is to be retried. What failed, was skipped or
/// was interrupted is retried, but for requests that were cancelled themselves: RetryPlan.cpp.
///
/// Threads: any, its own lock. start() to giveUp() belong to the one job that runs.
class RefreshLedger {
public:
    using TimePoint = RefreshRequest::TimePoint;

    /// @param files where the root is looked for when a query fails; null: it is taken for there
    explicit RefreshLedger(Path root = {},
                           std::shared_ptr<const platform::FileUtilities> files = nullptr);

    /// Takes over what the job that runs now queries.
    /// @param sets for giveUp(): one for files, one for each folder, and those that are given back.
    ///        Of a retry, the one whose paths are `paths` and that tells what became of them
    ///        before.
    void start(PendingPaths& paths, RetrySets& sets) noexcept;

    /// Constant until the next call of one of these operations.
    const PendingPaths& running() const noexcept { return m_running; }

    /// It was answered by a query that started at `queryStart`.
    void succeed(TimePoint queryStart) noexcept;

    /// It was not answered; does nothing after succeed().
    /// @param requests of the job: those that were cancelled are not retried
    /// @param carriedOver gets what the carried-over ones (CacheUpdateJob) query again
    /// @param sets gets those that were not used
    void giveUp(const RefreshRequests& requests, Staleness::Cause cause,
                const std::exception_ptr& failure, TimePoint::duration duration,
                PendingPaths& carriedOver, RetrySets& sets) noexcept;

    /// Moves a set that is due at `reached` to `taken`. @return whether there was one
    bool takeDue(TimePoint reached, RetrySets& taken) noexcept;
    /// Takes back what takeDue() gave and nobody has queried.
    void putBack(RetrySets& taken) noexcept;
    /// When takeDue() will have one; empty when there is nothing, or the root is gone.
    std::optional<TimePoint> nextRetry() const noexcept;
    std::size_t retryPathCount() const noexcept;

    /// Nothing is retried from now on.
    void stop() noexcept;

    /// All but what waits in a queue.
    Freshness getFreshness(const Path& path) const;
    std::optional<Staleness> getStaleness() const;

    /// What is to be retried, when that has changed since the last call. Nothing while a retry is
    /// due at once: its result follows.
    std::optional<std::optional<Staleness>> takeRetryChange();

private:
    bool isRootGone() noexcept;
    void noteAnswer(TimePoint queryStart);
    std::optional<TimePoint> nextRetryLocked() const noexcept;
    Staleness stalenessOfRunning(const PendingPath& path) const noexcept;

    // Constant after construction.
    const Path m_root;
    const std::shared_ptr<const platform::FileUtilities> m_files;

    // Used by the running job alone.
    bool m_hasSeenRoot = false;
    bool m_hasLookedForRoot = false;

    mutable std::mutex m_mutex;
    // All below is guarded by m_mutex; the running job alone changes m_running, and reads it
    // without the lock.
    mutable PendingPaths m_running;
    RetrySets m_runningSets;
    bool m_isRunningFolders = false;
    mutable RetryPlan m_plan;
    bool m_isRootGone = false;
    bool m_isStopped = false;
    std::optional<Staleness> m_toldRetries;
    std::map<Path, TimePoint> m_answeredFiles; ///< since the last answer for a folder around each
    std::map<Path, TimePoint> m_answeredFolders;
};

} // namespace quendo
