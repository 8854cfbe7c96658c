#include "quendo/cache/EventInbox.h"

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Logging.h"

#include <utility>

namespace quendo {
namespace {

constexpr std::chrono::milliseconds retryInterval{250};

} // namespace

EventInbox::EventInbox(Path root, const std::shared_ptr<Executor>& strand,
                       std::shared_ptr<const platform::Services> services,
                       std::function<void()> take)
    : m_strand(strand), m_services(std::move(services)), m_take(std::move(take)),
      m_pending(std::move(root)) {}

void EventInbox::add(const Path& path, unsigned kinds) noexcept {
    m_pending.add(path, kinds);
    if (!m_pending.empty())
        wake();
}

void EventInbox::wake() noexcept {
    {
        const std::lock_guard lock(m_mutex);
        if (m_task == Task::Posted)
            return;
        m_task = Task::Posted;
    }
    post();
}

PendingEvents::Events EventInbox::take() {
    {
        // Before the events are taken: what comes in between posts a task that may find nothing.
        const std::lock_guard lock(m_mutex);
        m_task = Task::None;
    }
    return m_pending.take();
}

void EventInbox::retry() noexcept {
    {
        const std::lock_guard lock(m_mutex);
        if (m_task != Task::Refused)
            return;
        m_task = Task::Posted;
    }
    post();
}

/// With m_task Posted.
void EventInbox::post() noexcept {
    try {
        const auto strand = m_strand.lock();
        if (strand == nullptr)
            return;
        strand->post([weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->m_take();
        });
        const std::lock_guard lock(m_mutex);
        m_refusedSince.reset();
        return;
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
    {
        const std::lock_guard lock(m_mutex);
        m_task = Task::Refused;
        if (!m_refusedSince)
            m_refusedSince = Clock::now();
    }
    try {
        m_services->delayedTasks->runAfter(retryInterval, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->retry();
        });
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

std::optional<EventInbox::Clock::time_point> EventInbox::waitsForThreadSince() const {
    const std::lock_guard lock(m_mutex);
    return m_refusedSince;
}

} // namespace quendo
