#include "quendo/platform/standard/StandardDelayedTaskService.h"

#include "quendo/platform/Logging.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

namespace quendo::platform {

using Clock = std::chrono::steady_clock;

// Shared with the thread, which may outlive the service.
struct StandardDelayedTaskService::State : std::enable_shared_from_this<State> {
    using Tasks = std::multimap<Clock::time_point, UniqueFunction<void()>>;

    explicit State(ThreadStarter starter) : startThread(std::move(starter)) {}

    void work() {
        nameThisThread("quendo-delays");
        std::unique_lock lock(mutex);
        while (!tasks.empty()) {
            const auto due = tasks.begin()->first;
            if (Clock::now() < due) {
                earlierCame.wait_until(lock, due);
                continue;
            }
            auto task = tasks.extract(tasks.begin());
            lock.unlock();
            try {
                task.mapped()();
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
            }
            task = {};
            lock.lock();
        }
        hasThread = false;
    }

    const ThreadStarter startThread;
    std::mutex mutex;
    std::condition_variable earlierCame;
    Tasks tasks;
    bool hasThread = false;
};

StandardDelayedTaskService::StandardDelayedTaskService(ThreadStarter startThread)
    : m_state(std::make_shared<State>(std::move(startThread))) {}

StandardDelayedTaskService::~StandardDelayedTaskService() = default;

void StandardDelayedTaskService::runAfter(std::chrono::milliseconds delay,
                                          UniqueFunction<void()> task) {
    State::Tasks entry;
    entry.emplace(Clock::now() + delay, std::move(task));
    const std::lock_guard lock(m_state->mutex);
    if (!m_state->hasThread) {
        m_state->startThread([state = m_state] { state->work(); });
        m_state->hasThread = true;
    }
    // Of tasks that are due together the one handed in first stays in front.
    const auto added = m_state->tasks.insert(entry.extract(entry.begin()));
    if (added == m_state->tasks.begin())
        m_state->earlierCame.notify_one();
}

} // namespace quendo::platform
