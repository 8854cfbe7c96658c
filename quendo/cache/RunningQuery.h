#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace quendo {

/// The query that the drain of a cache runs now, for another thread that interrupts it.
///
/// Threads: any.
class RunningQuery {
public:
    /// @param hasTurn whether a background query of a turn may begin; must not fail
    explicit RunningQuery(std::function<bool(std::uint64_t turn)> hasTurn)
        : m_hasTurn(std::move(hasTurn)) {}

    /// A job of this turn follows; 0 for one without.
    void begin(std::uint64_t turn) noexcept {
        const std::lock_guard lock(m_mutex);
        m_turn = turn;
        m_wasInterrupted = false;
    }

    /// Just before the query.
    /// @param stop stops it; may be called until clear() has returned
    /// @return false when the turn is lost: the query must not begin
    bool set(std::function<void()> stop) {
        const std::lock_guard lock(m_mutex);
        m_stop = std::make_shared<const std::function<void()>>(std::move(stop));
        return m_hasTurn(m_turn);
    }

    void clear() noexcept {
        const std::lock_guard lock(m_mutex);
        m_stop.reset();
    }

    /// Without effect when no query runs, or that of another turn.
    void interrupt(std::uint64_t turn) {
        const auto stop = [&] {
            const std::lock_guard lock(m_mutex);
            if (turn != m_turn)
                return decltype(m_stop)();
            m_wasInterrupted = m_wasInterrupted || m_stop != nullptr;
            return m_stop;
        }();
        if (stop != nullptr)
            (*stop)();
    }

    /// Whether interrupt() stopped the newest query. Resets it.
    bool takeInterrupted() noexcept {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_wasInterrupted, false);
    }

private:
    const std::function<bool(std::uint64_t)> m_hasTurn;
    std::mutex m_mutex;
    // Guarded by m_mutex; the function is called without it.
    std::shared_ptr<const std::function<void()>> m_stop;
    std::uint64_t m_turn = 0;
    bool m_wasInterrupted = false;
};

} // namespace quendo
