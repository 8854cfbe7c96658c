#pragma once

#include "quendo/adapter/BackgroundTurns.h"
#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/InstallationService.h"
#include "quendo/platform/Services.h"
#include "tests/support/Testing.h"

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
        if (m_runsAtOnce)
            runOne();
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
    /// From now on tasks run where they are posted.
    void runAtOnce() { m_runsAtOnce = true; }
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
    std::atomic<bool> m_refuses = false;
    bool m_runsAtOnce = false;
};

/// While it lives, windows of change detection end when the test says so, and the notifications
/// come on the test's thread, as does all that runs on strands, but for the watching of new
/// folders. That and working-copy operations run where they are called.
class SteppedDetection {
public:
    /// @param watcher where events come from; null for the library's own
    explicit SteppedDetection(std::shared_ptr<platform::FolderWatcher> watcher = nullptr,
                              std::shared_ptr<platform::InstallationService> installation = nullptr)
        : m_scoped([&] {
              platform::Services services;
              services.folderWatcher = std::move(watcher);
              services.installation = std::move(installation);
              services.delayedTasks = m_delays;
              services.executors = m_executors;
              return services;
          }()) {}

    /// Ends the windows that are open, after all that has happened was told, and runs what that
    /// brings. @return how many there were
    std::size_t endWindows() {
        std::promise<void> reached;
        platform::services()->folderWatcher->fence([&] { reached.set_value(); });
        within(reached.get_future());
        const auto ended = endDelays();
        runStrands();
        return ended.size();
    }

    /// Runs the tasks that wait for a delay, in their order. @return their delays
    std::vector<std::chrono::milliseconds> endDelays() {
        std::list<std::pair<std::chrono::milliseconds, UniqueFunction<void()>>> due;
        {
            const std::lock_guard lock(m_delays->mutex);
            due.swap(m_delays->tasks);
        }
        std::vector<std::chrono::milliseconds> delays;
        for (auto& [delay, task] : due) {
            delays.push_back(delay);
            task();
        }
        return delays;
    }

    /// Calls `waiting` while the next working-copy operation waits for its turn, on its thread.
    void whileQueued(std::function<void()> waiting) {
        const std::lock_guard lock(m_executors->working);
        m_executors->inQueue = std::move(waiting);
    }
    /// The one made last.
    SteppedExecutor& strand() const { return *m_executors->strands.back(); }
    /// The one made first with this name.
    SteppedExecutor& strand(std::string_view name) const {
        return **std::ranges::find(m_executors->strands, name, &SteppedExecutor::name);
    }
    /// The one made last for watching new folders.
    SteppedExecutor& folderStrand() const { return *m_executors->folders; }
    /// While `refuses`, there is no thread for what is to run later.
    void refuseDelays(bool refuses) { m_delays->refuses = refuses; }
    std::chrono::milliseconds lastDelay() const { return m_delays->last; }
    void runStrands() {
        for (bool ran = true; std::exchange(ran, false);) {
            for (const auto& strand : m_executors->strands)
                while (strand->runOne())
                    ran = true;
        }
    }

    /// Waits until there is something to run that came since the last call.
    /// @return false when the deadline has passed
    bool awaitTask() {
        std::unique_lock lock(m_executors->mutex);
        return m_executors->came.wait_until(
            lock, byDeadline(), [&] { return std::exchange(m_executors->posted, false); });
    }

private:
    struct Delays : platform::DelayedTaskService {
        void runAfter(std::chrono::milliseconds delay, UniqueFunction<void()> task) override {
            const std::lock_guard lock(mutex);
            if (refuses)
                throw std::system_error(EAGAIN, std::generic_category(), "no thread");
            last = delay;
            tasks.emplace_back(delay, std::move(task));
        }
        std::mutex mutex;
        std::atomic<bool> refuses = false;
        std::chrono::milliseconds last{};
        std::list<std::pair<std::chrono::milliseconds, UniqueFunction<void()>>> tasks;
    };
    struct Executors : platform::ExecutorService {
        std::shared_ptr<Executor> getSourceControlExecutor() override { return sourceControl; }
        std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override {
            if (name == "DetectorFolders") {
                folders = std::make_shared<SteppedExecutor>(name);
                folders->runAtOnce();
                return folders;
            }
            return strands.emplace_back(std::make_shared<SteppedExecutor>(name, [this] {
                const std::lock_guard lock(mutex);
                posted = true;
                came.notify_all();
            }));
        }
        /// Runs its tasks where they are posted, one at a time.
        const std::shared_ptr<SteppedExecutor> sourceControl =
            std::make_shared<SteppedExecutor>("SourceControl", [this] {
                const std::lock_guard lock(working);
                if (auto waiting = std::exchange(inQueue, nullptr))
                    waiting();
                sourceControl->runOne();
            });
        std::mutex working;
        std::function<void()> inQueue; ///< guarded by `working`
        std::mutex mutex;
        std::condition_variable came;
        bool posted = false; ///< since it was waited for
        std::list<std::shared_ptr<SteppedExecutor>> strands;
        std::shared_ptr<SteppedExecutor> folders;
    };

    const std::shared_ptr<Delays> m_delays = std::make_shared<Delays>();
    const std::shared_ptr<Executors> m_executors = std::make_shared<Executors>();
    const platform::ScopedServices m_scoped;
    /// Its clock is the real one, by which no time passes here.
    const std::shared_ptr<BackgroundTurns> m_turns = [this] {
        auto turns = BackgroundTurns::of(m_executors->sourceControl);
        turns->setShare(0);
        return turns;
    }();
};

} // namespace quendo::test
