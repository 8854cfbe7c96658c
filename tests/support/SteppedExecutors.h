#pragma once

#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/Services.h"

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace quendo::test {

/// An executor whose tasks run when the test says so, on the test's thread.
class SteppedExecutor final : public Executor {
public:
    /// @param posted called after each post
    explicit SteppedExecutor(
        std::string name, std::function<void()> posted = [] {})
        : m_name(std::move(name)), m_posted(std::move(posted)) {}

    void post(Task task) override {
        {
            const std::lock_guard lock(m_mutex);
            if (m_refuses)
                throw std::system_error(EAGAIN, std::generic_category(), "no thread");
            m_tasks.push_back(std::move(task));
        }
        m_posted();
    }
    bool isRunningInThisThread() const noexcept override { return current == this; }
    std::string name() const override { return m_name; }

    /// @return false when there was nothing to run
    bool runOne() {
        std::list<Task> task;
        {
            const std::lock_guard lock(m_mutex);
            if (m_tasks.empty())
                return false;
            task.splice(task.begin(), m_tasks, m_tasks.begin());
        }
        const auto* outer = std::exchange(current, this);
        task.front()();
        current = outer;
        return true;
    }
    void refuse(bool refuses) { m_refuses = refuses; }
    std::size_t size() const {
        const std::lock_guard lock(m_mutex);
        return m_tasks.size();
    }

private:
    static inline thread_local const SteppedExecutor* current = nullptr;

    const std::string m_name;
    const std::function<void()> m_posted;
    mutable std::mutex m_mutex;
    std::list<Task> m_tasks;
    bool m_refuses = false;
};

/// While it lives, strands are stepped; `sourceControl` too.
class SteppedExecutors {
public:
    /// The strand made last.
    SteppedExecutor& strand() const { return *m_service->last; }
    SteppedExecutor& sourceControl() const { return *m_service->sourceControl; }

private:
    struct Service : platform::ExecutorService {
        std::shared_ptr<Executor> getSourceControlExecutor() override { return sourceControl; }
        std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override {
            return last = std::make_shared<SteppedExecutor>(name);
        }
        const std::shared_ptr<SteppedExecutor> sourceControl =
            std::make_shared<SteppedExecutor>("SourceControl");
        std::shared_ptr<SteppedExecutor> last;
    };

    const std::shared_ptr<Service> m_service = std::make_shared<Service>();
    const platform::ScopedServices m_scoped{[this] {
        platform::Services services;
        services.executors = m_service;
        return services;
    }()};
};

} // namespace quendo::test
