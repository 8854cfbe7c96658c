#pragma once

#include "quendo/cache/CacheTask.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <chrono>
#include <exception>
#include <memory>
#include <optional>

namespace quendo {

/// How fresh a cached state is, and what is being done about it.
struct Freshness {
    enum class Refresh {
        None,    ///< nobody has asked since the last answer
        Owed,    ///< asked for and not answered: see `failure`; the next refresh of this kind asks
        Waiting, ///< queued
        Running, ///< being asked for
    };

    /// When the query started that answered last; empty when none has. The cached state is that of
    /// this moment or later.
    std::optional<std::chrono::steady_clock::time_point> answeredAt;
    Refresh refresh = Refresh::None;

    /// Why the newest refresh failed; null when it succeeded, or was only skipped because a request
    /// combined with it was cancelled.
    std::exception_ptr failure;
};

/// When states were last asked for. An optional interface of a CMStatusCache; reach it with
/// dynamic_cast.
///
/// A path is answered by a refresh of its own and by one of any folder above it.
///
/// Threads: any; no operation waits for a refresh.
class QUENDO_API CMStatusCacheFreshness {
public:
    virtual ~CMStatusCacheFreshness();

    /// For a file, or for a folder and all below it. Costs the number of the requests that wait, or
    /// are owed, in the worst case. Of very many files that were refreshed one by one since their
    /// folder was, the oldest may be told as answered earlier than they were.
    virtual Freshness getFreshness(const Path& path) const = 0;

    /// A task whose wait() ends when the cache holds the state of `file`, or of `folder` and all
    /// below it, from this moment or later. A refresh that waits in the queue is shared where it
    /// will ask for that anyway; a query that has started already does not count.
    virtual std::shared_ptr<CacheTask> requireFreshFile(const Path& file) = 0;
    virtual std::shared_ptr<CacheTask> requireFreshFolder(const Path& folder) = 0;
};

} // namespace quendo
