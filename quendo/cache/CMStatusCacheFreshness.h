#pragma once

#include "quendo/cache/CacheTask.h"
#include "quendo/cache/RefreshReason.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

namespace quendo {

/// Since when a cached state may be outdated, why, and when the cache queries it again.
struct Staleness {
    enum class Cause {
        Requested,   ///< a refresh is queued or running; nothing went wrong
        Skipped,     ///< a request that was combined with the refresh was cancelled
        Interrupted, ///< the query was background work and gave way to something else
        Failed,      ///< the query failed: see `failure`
    };

    /// When the first refresh was requested that no query has answered.
    std::chrono::steady_clock::time_point since;
    RefreshReason reason = RefreshReason::Client; ///< of that request
    Cause cause = Cause::Requested;
    std::exception_ptr failure; ///< of the newest query; null unless `cause` is Failed

    /// When the cache retries by itself. Empty while a query is queued or running, while the root
    /// is gone (its return brings a refresh), and after CMStatusCache::stop().
    std::optional<std::chrono::steady_clock::time_point> nextRetry;
};

/// How fresh a cached state is, and what is being done about it.
struct Freshness {
    enum class Refresh {
        None,        ///< nothing was requested since the last answer
        ToBeRetried, ///< requested and not answered: see `failure`; the cache retries by itself
        Waiting,     ///< queued
        Running,     ///< being queried
    };

    /// When the query started that answered last; empty when none has. The cached state is that of
    /// this moment or later.
    std::optional<std::chrono::steady_clock::time_point> answeredAt;
    Refresh refresh = Refresh::None;

    /// Why the newest refresh failed; null when it succeeded, was interrupted, or was only skipped
    /// because a request combined with it was cancelled.
    std::exception_ptr failure;

    /// Empty exactly when `refresh` is None.
    std::optional<Staleness> staleness;
};

/// When states were last queried, and since when they may be outdated. An optional interface of a
/// CMStatusCache; reach it with dynamic_cast.
///
/// A path is answered by a refresh of its own and by one of any folder above it. The cache retries
/// what was not answered: 250 ms later, then at intervals that grow by half up to 30 s, and as soon
/// as another query succeeds. It does not retry while the root is gone.
///
/// Threads: any; no operation waits for a refresh.
class QUENDO_API CMStatusCacheFreshness {
public:
    using StalenessSlot = boost::signals2::slot<void(const std::optional<Staleness>&)>;

    virtual ~CMStatusCacheFreshness();

    /// Of a path: what was requested for it, or for a folder around it. What was requested for
    /// single paths below a folder does not count for the folder; getStaleness() covers everything.
    /// Costs the number of the queued refreshes, not of their paths. Of very many files that were
    /// refreshed one by one since their folder was, the oldest may be reported as answered earlier
    /// than they were.
    virtual Freshness getFreshness(const Path& path) const = 0;

    /// For the whole cache: since when some path may be outdated; empty when every refresh that was
    /// requested has been answered. What is to be retried determines the cause.
    virtual std::optional<Staleness> getStaleness() const = 0;

    /// Called when what is to be retried has changed: with its staleness when retries begin and
    /// after each attempt, and with an empty value when nothing is to be retried any more. A
    /// refresh that is only queued or running brings no call.
    ///
    /// Slots run on the cache's strand, after the waiters of the refresh have woken. What a slot
    /// throws is logged; the others are called. The cache may be destroyed in a slot.
    virtual boost::signals2::connection connectStalenessChanged(const StalenessSlot& slot) = 0;

    /// Since when a path (or any, if empty) may be outdated by a change that has led to no request
    /// yet; nothing when there is none. Called on any thread, maybe under a lock: it must be quick
    /// and call nothing of the cache.
    using PendingChanges = std::function<std::optional<std::chrono::steady_clock::time_point>(
        const std::optional<Path>&)>;

    /// From now on includes what `pending` returns in getFreshness() and getStaleness(), as a
    /// refresh that waits. The file system's updater of a managed folder sets it, once. The default
    /// does nothing.
    virtual void setPendingChanges(PendingChanges pending);

    /// A task whose wait() ends when the cache holds the state of `file`, or of `folder` and all
    /// below it, from this moment or later. A refresh that waits in the queue is shared where it
    /// will query that anyway; a query that has started already does not count.
    ///
    /// wait() succeeds only then: when a request that was combined with this one is cancelled, this
    /// one goes on. CMStatusCache::stop() makes it throw exception::OperationCancelledError.
    /// Cancelling the task itself ends it as CacheTask says.
    virtual std::shared_ptr<CacheTask> requireFreshFile(const Path& file) = 0;
    virtual std::shared_ptr<CacheTask> requireFreshFolder(const Path& folder) = 0;
};

} // namespace quendo
