#include "quendo/platform/standard/FileSystemWorker.h"

#include <utility>

namespace quendo::platform {

FileSystemWorker::~FileSystemWorker() = default;

void FileSystemWorker::post(Task task, bool isUrgent) {
    std::list<Task> entry;
    entry.push_back(std::move(task));
    // runNext() waits for the lock, so it finds the task.
    const std::lock_guard lock(m_mutex);
    m_strand->post([self = shared_from_this()] { self->runNext(); });
    auto& queue = isUrgent ? m_urgent : m_tasks;
    queue.splice(queue.end(), entry);
}

std::optional<FileSystemWorker::Clock::time_point> FileSystemWorker::busySince() const noexcept {
    const auto since = m_busySince.load();
    if (since == 0)
        return std::nullopt;
    return Clock::time_point(Clock::duration(since));
}

bool FileSystemWorker::hasTasks() const {
    const std::lock_guard lock(m_mutex);
    return m_busySince != 0 || !m_urgent.empty() || !m_tasks.empty();
}

void FileSystemWorker::runNext() {
    std::list<Task> task;
    {
        const std::lock_guard lock(m_mutex);
        auto& queue = m_urgent.empty() ? m_tasks : m_urgent;
        task.splice(task.begin(), queue, queue.begin());
        progress();
    }
    const struct Idle {
        FileSystemWorker& worker;
        ~Idle() { worker.m_busySince = 0; }
    } idle{*this};
    task.front()();
}

} // namespace quendo::platform
