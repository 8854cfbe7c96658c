#include "quendo/cache/DependencyWatches.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <utility>

namespace quendo {
namespace {

constexpr std::chrono::milliseconds window{250};
// Time stamps of files come from a clock that steps with the kernel's tick, 10 ms at most.
constexpr std::chrono::milliseconds margin{100};

/// When the content or the attributes of `path` changed last; nothing when it is not there.
std::optional<DependencyWatches::Clock::time_point> changedAt(const Path& path) {
    struct stat status;
    if (::lstat(path.toNative().c_str(), &status) != 0)
        return {};
    const auto since = std::chrono::seconds(status.st_ctim.tv_sec) +
                       std::chrono::nanoseconds(status.st_ctim.tv_nsec);
    return DependencyWatches::Clock::time_point(
        std::chrono::duration_cast<DependencyWatches::Clock::duration>(since));
}

} // namespace

DependencyWatches::DependencyWatches(std::shared_ptr<StateDependencies> dependencies,
                                     Callbacks callbacks)
    : m_dependencies(dependencies), m_callbacks(std::move(callbacks)),
      m_executor(createStrandExecutor("CMDependencies")) {}

DependencyWatches::~DependencyWatches() = default;

void DependencyWatches::update() noexcept {
    try {
        const std::lock_guard lock(m_mutex);
        if (m_isPosted || m_isStopped)
            return;
        m_executor->post([weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->updateNow();
        });
        m_isPosted = true;
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION(); // the end of the next refresh tries again
    }
}

void DependencyWatches::stop() {
    Detectors dropped; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    m_isStopped = true;
    dropped.swap(m_detectors);
}

void DependencyWatches::updateNow() {
    std::vector<Path> changed;
    {
        const std::lock_guard lock(m_mutex);
        m_isPosted = false;
        changed.assign(m_changed.begin(), m_changed.end());
        m_changed.clear();
    }
    const auto dependencies = m_dependencies.lock();
    if (dependencies == nullptr)
        return;
    const auto keepChanged = [&] {
        const std::lock_guard lock(m_mutex);
        m_changed.insert(changed.begin(), changed.end());
    };
    std::map<Key, StateDependency> wanted;
    try {
        for (auto& one : dependencies->getStateDependencies(m_callbacks.nested(), changed)) {
            Key key(one.folder, one.filterName, one.dependents);
            wanted.emplace(std::move(key), std::move(one));
        }
    } catch (const exception::OperationCancelledError&) {
        keepChanged(); // the host stopped everything that ran; a refresh need not follow
        return update();
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION(); // what is watched stays so until the next refresh has ended
        return keepChanged();
    }
    Detectors dropped; // destroyed without the lock
    std::vector<std::pair<Key, std::uint64_t>> timers;
    {
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_unwatched, [&](const auto& each) { return !wanted.contains(each.first); });
        for (const auto& [key, one] : wanted)
            if (one.refreshEvery.count() != 0 && m_unwatched.try_emplace(key, m_timers + 1).second)
                timers.emplace_back(key, ++m_timers);
        for (auto it = m_detectors.begin(); it != m_detectors.end();) {
            const auto found = wanted.find(it->first);
            if (found == wanted.end()) {
                dropped.insert(m_detectors.extract(it++));
                continue;
            }
            wanted.erase(found);
            ++it;
        }
    }
    for (const auto& [key, id] : timers)
        refreshLater(key, id, wanted.at(key).refreshEvery);
    for (const auto& [key, dependency] : wanted)
        if (dependency.refreshEvery.count() == 0)
            watch(dependency, key);
}

void DependencyWatches::refreshLater(const Key& key, std::uint64_t id,
                                     std::chrono::seconds interval) {
    const auto isWanted = [key, id](DependencyWatches& self) {
        const auto found = self.m_unwatched.find(key);
        return !self.m_isStopped && found != self.m_unwatched.end() && found->second == id;
    };
    try {
        m_services->delayedTasks->runAfter(interval,
                                           [weak = weak_from_this(), key, id, interval, isWanted] {
                                               const auto self = weak.lock();
                                               if (self == nullptr)
                                                   return;
                                               {
                                                   const std::lock_guard lock(self->m_mutex);
                                                   if (!isWanted(*self))
                                                       return;
                                               }
                                               self->m_callbacks.changed(std::get<2>(key));
                                               self->refreshLater(key, id, interval);
                                           });
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        const std::lock_guard lock(m_mutex);
        if (isWanted(*this))
            m_unwatched.erase(key); // the end of the next refresh tries again
    }
}

void DependencyWatches::watch(const StateDependency& dependency, Key key) {
    const platform::ThreadServices scoped(m_services);
    try {
        auto detector = std::make_unique<FolderExternalChangeDetector>(dependency.folder, window,
                                                                       dependency.filter);
        detector->onChange([weak = weak_from_this(), dependents = dependency.dependents] {
            if (const auto self = weak.lock())
                self->noteChange(dependents);
        });
        const std::lock_guard lock(m_mutex);
        if (m_isStopped)
            return;
        m_detectors.insert_or_assign(std::move(key), std::move(detector));
    } catch (const platform::ChangeEventsSubscriptionException&) {
        QUENDO_LOG_CAUGHT_EXCEPTION(); // a host's watcher refuses; the others are watched
        return;
    }
    if (hasChangedSinceAnswer(dependency))
        noteChange(dependency.dependents);
}

// No event reports a change between the query and the start of the watch, so this looks for one.
bool DependencyWatches::hasChangedSinceAnswer(const StateDependency& dependency) const {
    std::optional<Clock::time_point> since;
    for (const auto& path : dependency.dependents) {
        const auto at = m_callbacks.answeredAt(path);
        if (!at)
            return false; // the query is still to start
        since = since ? std::min(*since, *at) : *at;
    }
    std::vector<Path> folders{dependency.folder};
    while (!folders.empty()) {
        const auto folder = std::move(folders.back());
        folders.pop_back();
        if (const auto at = changedAt(folder); at && *at >= *since - margin)
            return true;
        std::error_code unreadable;
        std::filesystem::directory_iterator entry(folder.toNative(), unreadable), end;
        for (; !unreadable && entry != end; entry.increment(unreadable)) {
            auto child = folder.child(entry->path().filename().native());
            if (!dependency.filter(child))
                continue;
            if (const auto at = changedAt(child); at && *at >= *since - margin)
                return true;
            std::error_code gone;
            if (entry->symlink_status(gone).type() == std::filesystem::file_type::directory)
                folders.push_back(std::move(child));
        }
    }
    return false;
}

void DependencyWatches::noteChange(const std::vector<Path>& dependents) {
    {
        const std::lock_guard lock(m_mutex);
        m_changed.insert(dependents.begin(), dependents.end());
    }
    m_callbacks.changed(dependents);
}

} // namespace quendo
