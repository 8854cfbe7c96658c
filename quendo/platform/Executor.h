#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/Rethrowable.h"
#include "quendo/platform/UniqueFunction.h"

#include <future>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace quendo {

/// Thrown to a caller that would wait for itself: a synchronous task handed to an executor from a
/// task that this executor is running.
class QUENDO_API ExecutorDeadlockError : public exception::Rethrowable<ExecutorDeadlockError> {
public:
    using Rethrowable::Rethrowable;
};

/// What a task works on.
struct TaskSubject {
    Path workingCopy;     ///< its root, in the one spelling that all its tasks use
    bool isQuery = false; ///< changes nothing
};

/// Runs tasks one at a time, in the order in which they were handed in.
///
/// Everything that a task did happens before the next task starts. Any thread may hand tasks in.
/// Tasks may block; an executor never runs two of its own at once, and blocking one does not hold
/// up another executor. The one exception is in postFor(): a task that waits outside its executor.
/// Dropping the last reference returns at once: tasks already queued still run, and the reference
/// may be dropped inside a task of the same executor.
class QUENDO_API Executor {
public:
    using Task = UniqueFunction<void()>;

    virtual ~Executor();

    /// Queues `task` and returns. What the task throws is logged and dropped; the executor goes on.
    /// @throws std::system_error when no thread can be had to run it; the task was not queued.
    virtual void post(Task task) = 0;

    /// True inside a task of this executor.
    virtual bool isRunningInThisThread() const noexcept = 0;

    /// The name given at creation, UTF-8.
    virtual std::string name() const = 0;

    /// As post(), for a task that works on one working copy. While such a task waits outside
    /// (OutsideExecutor), an executor that supports it runs queries of other working copies, one at
    /// a time. Tasks of one working copy keep their order and never overlap.
    /// The default is post(): every task waits for the one before.
    virtual void postFor(const TaskSubject& subject, Task task);

    /// Queues `task` and returns a future for its result or its exception, the same object.
    template <class Callable>
    auto runAsyncTask(Callable&& task)
        -> std::future<std::invoke_result_t<std::decay_t<Callable>&>> {
        auto [packaged, future] = package(std::forward<Callable>(task));
        post(std::move(packaged));
        return std::move(future);
    }

    /// Queues `task`, waits until it has run, and returns its result or throws its exception, the
    /// same object.
    /// @throws ExecutorDeadlockError when called inside a task of this executor.
    template <class Callable>
    auto runSyncTask(Callable&& task) -> std::invoke_result_t<std::decay_t<Callable>&> {
        refuseOwnThread();
        return runAsyncTask(std::forward<Callable>(task)).get();
    }

    /// The same through postFor().
    template <class Callable>
    auto runSyncTaskFor(const TaskSubject& subject, Callable&& task)
        -> std::invoke_result_t<std::decay_t<Callable>&> {
        refuseOwnThread();
        auto [packaged, future] = package(std::forward<Callable>(task));
        postFor(subject, std::move(packaged));
        return future.get();
    }

private:
    template <class Callable>
    static auto package(Callable&& task) {
        using Result = std::invoke_result_t<std::decay_t<Callable>&>;
        std::promise<Result> promise;
        auto future = promise.get_future();
        Task packaged = [promise = std::move(promise),
                         task = std::decay_t<Callable>(std::forward<Callable>(task))]() mutable {
            try {
                if constexpr (std::is_void_v<Result>) {
                    task();
                    promise.set_value();
                } else {
                    promise.set_value(task());
                }
            } catch (...) {
                promise.set_exception(std::current_exception());
            }
        };
        return std::pair(std::move(packaged), std::move(future));
    }

    void refuseOwnThread() const;
};

/// The one executor on which every working-copy operation of the process runs. The library's own
/// runs all operations that change something on one thread, and queries there too, apart from those
/// that it runs on a second thread while another task waits outside. From the installed platform
/// services; never null.
QUENDO_API std::shared_ptr<Executor> getSourceControlExecutor();

/// A new serial executor. It holds no thread while it has nothing to do.
/// @param name UTF-8; shown in debuggers, where the system cuts it after 15 bytes.
QUENDO_API std::shared_ptr<Executor> createStrandExecutor(const std::string& name);

} // namespace quendo
