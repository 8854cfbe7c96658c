#include "quendo/platform/standard/SingleThreadExecutor.h"

#include "quendo/platform/Logging.h"

#include <condition_variable>
#include <list>
#include <mutex>
#include <utility>

namespace quendo::platform {

// Shared with the thread, which outlives the executor for as long as tasks are queued.
struct SingleThreadExecutor::State {
    std::mutex mutex;
    std::condition_variable changed;
    std::list<Task> tasks;
    bool started = false;
    bool abandoned = false;
    const std::string name;
    const ThreadStarter startThread;

    static inline thread_local const State* current = nullptr;

    State(std::string threadName, ThreadStarter starter)
        : name(std::move(threadName)), startThread(std::move(starter)) {}

    void run() {
        nameThisThread(name);
        current = this;
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return !tasks.empty() || abandoned; });
            if (tasks.empty())
                return;
            std::list<Task> task;
            task.splice(task.begin(), tasks, tasks.begin());
            lock.unlock();
            try {
                task.front()();
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
            }
            task.clear();
            lock.lock();
        }
    }
};

SingleThreadExecutor::SingleThreadExecutor(std::string name, ThreadStarter startThread)
    : m_state(std::make_shared<State>(std::move(name), std::move(startThread))) {}

SingleThreadExecutor::~SingleThreadExecutor() {
    const std::lock_guard lock(m_state->mutex);
    m_state->abandoned = true;
    m_state->changed.notify_one();
}

void SingleThreadExecutor::post(Task task) {
    std::list<Task> entry;
    entry.push_back(std::move(task));
    const std::lock_guard lock(m_state->mutex);
    if (!m_state->started) {
        m_state->startThread([state = m_state] { state->run(); });
        m_state->started = true;
    }
    m_state->tasks.splice(m_state->tasks.end(), entry);
    m_state->changed.notify_one();
}

bool SingleThreadExecutor::isRunningInThisThread() const noexcept {
    return State::current == m_state.get();
}

std::string SingleThreadExecutor::name() const {
    return m_state->name;
}

} // namespace quendo::platform
