#pragma once

#include "quendo/adapter/StateDependencies.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/Services.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace quendo {

/// Watches what an adapter names as StateDependencies, and names the paths to refresh when some of
/// it changes. A burst of changes brings one refresh, a quarter of a second after its first change.
///
/// Threads: any. The adapter is called and folders are listed on a strand of its own. Destroying it
/// waits for no callback: one that runs holds it until it returns.
class DependencyWatches : public std::enable_shared_from_this<DependencyWatches> {
public:
    using Clock = std::chrono::system_clock;

    struct Callbacks {
        /// The candidates for StateDependencies::getStateDependencies().
        std::function<std::vector<Path>()> nested;
        /// When the query started that answered for a path last. Without an answer: when the query
        /// that is running was requested, or nothing when none is running.
        std::function<std::optional<Clock::time_point>(const Path&)> answeredAt;
        /// Takes the paths to refresh. Called on any thread; must be quick.
        std::function<void(const std::vector<Path>&)> changed;
    };

    DependencyWatches(std::shared_ptr<StateDependencies> dependencies, Callbacks callbacks);
    ~DependencyWatches();

    /// Gets the list again, soon, and watches what it names from then on.
    void update() noexcept;

    void stop();

private:
    using Key = std::tuple<Path, std::string, std::vector<Path>>;
    using Detectors = std::map<Key, std::unique_ptr<FolderExternalChangeDetector>>;

    void updateNow();
    void watch(const StateDependency& dependency, Key key);
    bool hasChangedSinceAnswer(const StateDependency& dependency) const;
    void noteChange(const std::vector<Path>& dependents);
    void refreshLater(const Key& key, std::uint64_t id, std::chrono::seconds interval);

    const std::weak_ptr<StateDependencies> m_dependencies;
    const Callbacks m_callbacks;
    const std::shared_ptr<const platform::Services> m_services = platform::services();
    const std::shared_ptr<Executor> m_executor;

    std::mutex m_mutex;
    bool m_isPosted = false; ///< guarded by m_mutex, as are the rest
    bool m_isStopped = false;
    std::set<Path> m_changed; ///< dependents, since the list was got
    Detectors m_detectors;    ///< changed on the strand and by stop()
    /// What is refreshed at an interval, by the number of its timer.
    std::map<Key, std::uint64_t> m_unwatched;
    std::uint64_t m_timers = 0;
};

} // namespace quendo
