#include "quendo/platform/standard/SingleThreadExecutor.h"

#include "quendo/platform/ExecutorTurn.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>
#include <utility>

// At any time at most one task runs that is not waiting outside:
//
//     main thread     | task of A ...      | waits outside       | takes back | goes on
//     second thread   |                    | query of B, query of C |          (ends)
//
// The second thread starts when there is a query to run and ends when there is none. The task of A
// has priority: once it wants its turn back, the running query ends and no other starts; a query on
// the second thread keeps its turn to the end. A query passes operations of other working copies in
// the queue, but neither what its own working copy has there nor a task without a subject, which
// may be about anything.

namespace quendo::platform {

// Shared with the threads, which outlive the executor for as long as tasks are queued.
struct SingleThreadExecutor::State : std::enable_shared_from_this<State> {
    struct Entry {
        Task task;
        std::optional<TaskSubject> subject;
    };
    using Entries = std::list<Entry>;

    std::mutex mutex;
    std::condition_variable changed;
    std::condition_variable served;
    Entries entries;
    bool started = false;
    bool abandoned = false;
    const Path* outside = nullptr; ///< the working copy whose task waits outside
    bool hasSecondThread = false;
    bool isServing = false; ///< the second thread runs a task
    const std::string name;
    const ThreadStarter startThread;

    static inline thread_local const State* current = nullptr;

    State(std::string threadName, ThreadStarter starter)
        : name(std::move(threadName)), startThread(std::move(starter)) {}

    struct Turn final : ExecutorTurn {
        Turn(State& owner, const Path& workingCopy) : state(owner), subject(workingCopy) {}
        void giveAway() noexcept override {
            const std::lock_guard lock(state.mutex);
            state.outside = &subject;
            state.serveQueries();
        }
        void takeBack() noexcept override {
            std::unique_lock lock(state.mutex);
            state.outside = nullptr;
            state.served.wait(lock, [&] { return !state.isServing; });
        }
        State& state;
        const Path& subject;
    };

    void run() {
        nameThisThread(name);
        current = this;
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return !entries.empty() || abandoned; });
            if (entries.empty())
                return;
            runEntry(lock, entries.begin(), true);
        }
    }

    void runEntry(std::unique_lock<std::mutex>& lock, Entries::iterator position,
                  bool mayWaitOutside) {
        Entries taken;
        taken.splice(taken.begin(), entries, position);
        lock.unlock();
        try {
            auto& [task, subject] = taken.front();
            if (subject && mayWaitOutside) {
                Turn turn(*this, subject->workingCopy);
                const ExecutorTurn::Scope scope(turn);
                task();
            } else {
                task();
            }
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
        taken.clear();
        lock.lock();
    }

    /// The first query that may run while a task waits outside. Under the lock.
    Entries::iterator nextQuery() {
        const auto isOf = [](const Path& workingCopy) {
            return [&](const Entry& entry) { return entry.subject->workingCopy == workingCopy; };
        };
        for (auto at = entries.begin(); at != entries.end() && at->subject; ++at) {
            const auto& workingCopy = at->subject->workingCopy;
            if (at->subject->isQuery && workingCopy != *outside &&
                std::none_of(entries.begin(), at, isOf(workingCopy)))
                return at;
        }
        return entries.end();
    }

    /// Starts the second thread if it is of use. Under the lock.
    void serveQueries() noexcept {
        if (outside == nullptr || hasSecondThread || nextQuery() == entries.end())
            return;
        try {
            startThread([self = shared_from_this()] { self->runSecondThread(); });
            hasSecondThread = true;
        } catch (...) {
            // Without a thread the query waits until the operation has ended.
        }
    }

    void runSecondThread() {
        nameThisThread(name);
        current = this;
        std::unique_lock lock(mutex);
        while (outside != nullptr) {
            const auto query = nextQuery();
            if (query == entries.end())
                break;
            isServing = true;
            runEntry(lock, query, false);
            isServing = false;
            served.notify_one();
        }
        hasSecondThread = false;
    }

    void queue(Entry entry) {
        Entries single;
        single.push_back(std::move(entry));
        const std::lock_guard lock(mutex);
        if (!started) {
            startThread([self = shared_from_this()] { self->run(); });
            started = true;
        }
        entries.splice(entries.end(), single);
        changed.notify_one();
        serveQueries();
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
    m_state->queue({std::move(task), std::nullopt});
}

void SingleThreadExecutor::postFor(const TaskSubject& subject, Task task) {
    m_state->queue({std::move(task), subject});
}

bool SingleThreadExecutor::isRunningInThisThread() const noexcept {
    return State::current == m_state.get();
}

std::string SingleThreadExecutor::name() const {
    return m_state->name;
}

} // namespace quendo::platform
