#include "quendo/platform/standard/StrandPool.h"

#include "quendo/platform/Logging.h"

#include <condition_variable>
#include <list>
#include <mutex>
#include <system_error>
#include <utility>

namespace quendo::platform {

// Shared by the pool, its strands and its workers, so that none of them has to outlive another.
// Lists, because taking an element in or out moves a node and cannot fail.
struct StrandPool::State : std::enable_shared_from_this<State> {
    const StrandPoolOptions options;
    mutable std::mutex mutex;
    std::condition_variable workCame;
    mutable std::condition_variable workerLeft;
    std::list<std::shared_ptr<Strand>> runnable;
    std::size_t workers = 0;
    std::size_t idle = 0;     // waiting for work, woken ones included until they take it
    std::size_t starting = 0; // on their way to their first look at `runnable`

    explicit State(StrandPoolOptions poolOptions) : options(std::move(poolOptions)) {}

    /// @return false when the strand has to wait for a worker because no thread could be had
    bool schedule(std::shared_ptr<Strand> strand);
    void work();
};

class StrandPool::Strand final : public Executor, public std::enable_shared_from_this<Strand> {
public:
    Strand(std::shared_ptr<State> pool, std::string strandName)
        : m_pool(std::move(pool)), m_name(std::move(strandName)) {}

    void post(Task task) override {
        std::list<Task> entry;
        entry.push_back(std::move(task));
        bool served = true;
        {
            const std::lock_guard lock(m_mutex);
            if (!m_scheduled) {
                // Not scheduled means that the queue is empty; a worker that looks at once waits
                // for the lock held here.
                served = m_pool->schedule(shared_from_this());
                m_scheduled = true;
            }
            m_tasks.splice(m_tasks.end(), entry);
        }
        if (!served) {
            QUENDO_LOG(Severity::Notice)
                << "No thread for the strand " << m_name << "; it waits for another to finish.";
        }
    }

    bool isRunningInThisThread() const noexcept override { return current == this; }
    std::string name() const override { return m_name; }

    /// Runs what is queued; on a worker.
    void drain() {
        nameThisThread(m_name);
        current = this;
        for (;;) {
            std::list<Task> task;
            {
                const std::lock_guard lock(m_mutex);
                if (m_tasks.empty()) {
                    m_scheduled = false;
                    break;
                }
                task.splice(task.begin(), m_tasks, m_tasks.begin());
            }
            try {
                task.front()();
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
            }
        }
        current = nullptr;
    }

private:
    static inline thread_local const Strand* current = nullptr;

    const std::shared_ptr<State> m_pool;
    const std::string m_name;
    std::mutex m_mutex; // before the pool's
    std::list<Task> m_tasks;
    bool m_scheduled = false; // queued in the pool or drained by a worker
};

bool StrandPool::State::schedule(std::shared_ptr<Strand> strand) {
    std::list<std::shared_ptr<Strand>> entry;
    entry.push_back(std::move(strand));
    const std::lock_guard lock(mutex);
    if (idle + starting > runnable.size()) {
        runnable.splice(runnable.end(), entry);
        workCame.notify_one();
        return true;
    }
    bool started = true;
    try {
        options.startThread([pool = shared_from_this()] { pool->work(); });
        ++workers;
        ++starting;
    } catch (const std::system_error&) {
        if (workers == 0)
            throw;
        started = false;
    }
    runnable.splice(runnable.end(), entry);
    return started;
}

void StrandPool::State::work() {
    std::unique_lock lock(mutex);
    --starting;
    for (;;) {
        if (runnable.empty()) {
            ++idle;
            workCame.wait_until(lock, std::chrono::steady_clock::now() + options.idleTime,
                                [&] { return !runnable.empty(); });
            --idle;
            if (runnable.empty())
                break;
        }
        std::list<std::shared_ptr<Strand>> strand;
        strand.splice(strand.begin(), runnable, runnable.begin());
        lock.unlock();
        strand.front()->drain();
        strand.clear(); // maybe the last reference: never under the lock
        nameThisThread("quendo-idle");
        lock.lock();
    }
    --workers;
    workerLeft.notify_all();
}

StrandPool::StrandPool(StrandPoolOptions options)
    : m_state(std::make_shared<State>(std::move(options))) {}

StrandPool::~StrandPool() = default;

std::shared_ptr<Executor> StrandPool::createStrand(const std::string& name) {
    return std::make_shared<Strand>(m_state, name);
}

std::size_t StrandPool::workerCount() const {
    const std::lock_guard lock(m_state->mutex);
    return m_state->workers;
}

bool StrandPool::waitForAtMost(std::size_t count,
                               std::chrono::steady_clock::time_point deadline) const {
    std::unique_lock lock(m_state->mutex);
    return m_state->workerLeft.wait_until(lock, deadline,
                                          [&] { return m_state->workers <= count; });
}

} // namespace quendo::platform
