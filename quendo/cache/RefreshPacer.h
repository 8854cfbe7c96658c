#pragma once

#include <chrono>

namespace quendo {

/// Decides when the next query that nobody requested may start, so that all of them take at most a
/// fifth of one core's time over any 10 s.
///
/// A budget grows with time and is spent by queries. A query may start when the budget covers what
/// the last one cost. The budget grows by 0.15 s in a second and never holds more than 0.4 s, so
/// queries of up to 0.4 s stay below 0.4 s + 10 * 0.15 s = 1.9 s in 10 s. After a longer query the
/// next one waits until the budget has recovered, but no longer than five times the query's cost,
/// or 10 s where that is more.
///
/// Threads: thread-compatible; concurrent use of one object needs external locking.
class RefreshPacer {
public:
    using Duration = std::chrono::steady_clock::duration;
    using TimePoint = std::chrono::steady_clock::time_point;

    /// With a full budget.
    explicit RefreshPacer(TimePoint now) noexcept : m_at(now) {}

    /// How long the next query has to wait; zero when it may start.
    Duration delay(TimePoint now) const noexcept;

    /// A query that cost this has ended.
    void spend(Duration cost, TimePoint now) noexcept;

    /// The time that delay() gave has passed: the next query may start, whatever the clock shows.
    void endDelay(TimePoint now) noexcept;

    /// Negative when more was spent than was there.
    Duration budget(TimePoint now) const noexcept;

private:
    Duration needed() const noexcept;

    static constexpr Duration most = std::chrono::milliseconds(400);
    static constexpr Duration longestWait = std::chrono::seconds(10);

    Duration m_budget = most; ///< at m_at
    TimePoint m_at;
    Duration m_lastCost{};
};

} // namespace quendo
