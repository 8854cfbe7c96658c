#pragma once

#include "quendo/platform/Executor.h"
#include "quendo/platform/UniqueFunction.h"

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <optional>

namespace quendo::platform {

/// Runs the tasks that touch one file system, one at a time. When one of them hangs, it holds one
/// thread, and the others wait.
///
/// Threads: any. Destroying it waits for nothing; posted tasks still run.
class FileSystemWorker : public std::enable_shared_from_this<FileSystemWorker> {
public:
    using Task = UniqueFunction<void()>;
    using Clock = std::chrono::steady_clock;

    /// @param strand holds a thread only while it has something to do
    explicit FileSystemWorker(std::shared_ptr<Executor> strand) : m_strand(std::move(strand)) {}
    virtual ~FileSystemWorker();

    /// @param isUrgent runs before the tasks that are not
    /// @throws std::bad_alloc, std::system_error; the task does not run then
    void post(Task task, bool isUrgent);

    /// A task calls this whenever a system call has returned.
    void progress() noexcept { m_busySince = Clock::now().time_since_epoch().count(); }

    /// Since when the running task has made no progress; nothing when none runs.
    std::optional<Clock::time_point> busySince() const noexcept;

    /// Whether tasks wait or run.
    bool hasTasks() const;

private:
    void runNext();

    const std::shared_ptr<Executor> m_strand;
    mutable std::mutex m_mutex;
    std::list<Task> m_urgent, m_tasks;       // under it
    std::atomic<Clock::rep> m_busySince = 0; // of the clock's epoch; 0 when idle
};

} // namespace quendo::platform
