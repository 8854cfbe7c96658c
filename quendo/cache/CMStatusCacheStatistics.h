#pragma once

#include "quendo/adapter/QueryOrigin.h"
#include "quendo/cache/RefreshReason.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quendo {

/// What a status cache has refreshed, and why: what a report of a stale state needs. Times are for
/// display; durations are measured with a steady clock.
struct CacheStatistics {
    using TimePoint = std::chrono::system_clock::time_point;

    enum class Result { Succeeded, Failed, Cancelled, Skipped, Interrupted };

    /// What one query covers: a folder and all below it, or files.
    struct Target {
        bool isFolder = false;
        Path path;             ///< the folder, or one of the files
        std::size_t count = 0; ///< of the paths that were requested
    };

    struct Counts {
        std::uint64_t requests = 0;
        std::uint64_t queries = 0; ///< that have ended, whatever their result
        std::uint64_t failed = 0, cancelled = 0, interrupted = 0; ///< of these
        std::uint64_t skipped = 0;                      ///< refreshes that ended without a query
        std::chrono::microseconds total{0}, longest{0}; ///< of the queries, merging included
    };

    struct Refresh {
        TimePoint started;
        RefreshReason reason = RefreshReason::Client;
        Target target;
        std::chrono::microseconds duration{0};
        Result result = Result::Succeeded;
        std::string failure; ///< one line; empty unless it failed or was cancelled
    };

    struct Running {
        TimePoint started;
        RefreshReason reason = RefreshReason::Client;
        Target target;
        QueryUrgency urgency = QueryUrgency::Requested;
    };

    /// A query that answers several requests counts for the first of their reasons, in the order of
    /// RefreshReason.
    const Counts& of(RefreshReason reason) const noexcept {
        return counts[static_cast<std::size_t>(reason)];
    }

    std::array<Counts, refreshReasonCount> counts; ///< by RefreshReason
    std::size_t queuedRefreshes = 0;
    std::size_t queuedPaths = 0;
    std::optional<Running> running;
    std::size_t retryPaths = 0;         ///< paths to be retried
    std::optional<TimePoint> nextRetry; ///< empty when nothing is, or the root is gone
    std::vector<Refresh> last;          ///< the newest 50, oldest first
};

QUENDO_API std::string_view toString(CacheStatistics::Result result) noexcept;

/// The statistics as text for people, some lines, each ended by a line feed. Times are local.
/// Control characters in names are replaced.
QUENDO_API std::string describe(const CacheStatistics& statistics);

/// Statistics of a status cache. An optional interface of a CMStatusCache; reach it with
/// dynamic_cast or findInterface().
///
/// Threads: any; waits for no refresh.
class QUENDO_API CMStatusCacheStatistics {
public:
    virtual ~CMStatusCacheStatistics();

    virtual CacheStatistics getStatistics() const = 0;
};

} // namespace quendo
