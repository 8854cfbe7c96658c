#pragma once

#include "quendo/adapter/QueryOrigin.h"
#include "quendo/cache/CMStatusCacheStatistics.h"
#include "quendo/cache/RefreshReason.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>

namespace quendo {

/// Counts the refreshes of one cache and remembers the newest.
///
/// Threads: any, its own lock. Nothing throws; without memory a text is missing.
class RefreshStatistics {
public:
    using Result = CacheStatistics::Result;

    void noteRequest(RefreshReason reason) noexcept;

    /// The job that runs now. One at a time; end() follows.
    void begin(RefreshReason reason, QueryUrgency urgency,
               const CacheStatistics::Target& target) noexcept;
    void end(Result result, const std::exception_ptr& failure) noexcept;

    /// All but what waits and what is to be retried. @throws std::bad_alloc
    CacheStatistics get() const;

private:
    static constexpr std::size_t mostRefreshes = 50;

    mutable std::mutex m_mutex;
    // Guarded by m_mutex.
    std::array<CacheStatistics::Counts, refreshReasonCount> m_counts;
    std::optional<CacheStatistics::Running> m_running;
    std::chrono::steady_clock::time_point m_runningSince;
    std::array<CacheStatistics::Refresh, mostRefreshes> m_last; ///< a ring
    std::size_t m_refreshes = 0;                                ///< that were put into it
};

} // namespace quendo
