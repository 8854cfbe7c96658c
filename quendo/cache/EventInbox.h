#pragma once

#include "quendo/cache/PendingEvents.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/Services.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace quendo {

/// Hands events from the threads that deliver them over to a strand: holds them as PendingEvents
/// and keeps one task posted while there are any.
///
/// When no thread can be had for that task, the events stay, and posting is tried again: after a
/// quarter of a second, as long as the service for delayed tasks has a thread, and otherwise with
/// the next event or call of retry().
///
/// Threads: any. add() is quick and waits for nothing.
class EventInbox : public std::enable_shared_from_this<EventInbox> {
public:
    using Clock = PendingEvents::Clock;

    /// @param strand held weakly
    /// @param take run on the strand when there is something to take; must hold its owner weakly
    EventInbox(Path root, const std::shared_ptr<Executor>& strand,
               std::shared_ptr<const platform::Services> services, std::function<void()> take);

    void add(const Path& path, unsigned kinds) noexcept;

    /// On the strand. What is added from now on posts another task.
    PendingEvents::Events take();

    /// Has the task run once more, whether there are events or not.
    void wake() noexcept;

    /// Tries to post the task if the last attempt failed.
    void retry() noexcept;

    /// Since when events wait for a thread; empty when none do.
    std::optional<Clock::time_point> waitsForThreadSince() const;

    const PendingEvents& pending() const noexcept { return m_pending; }

private:
    enum class Task { None, Posted, Refused };

    void post() noexcept;

    const std::weak_ptr<Executor> m_strand;
    const std::shared_ptr<const platform::Services> m_services;
    const std::function<void()> m_take;
    PendingEvents m_pending;

    mutable std::mutex m_mutex;
    Task m_task = Task::None; ///< guarded by m_mutex, as is the rest
    std::optional<Clock::time_point> m_refusedSince;
};

} // namespace quendo
