#pragma once

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/UniqueFunction.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace quendo {

/// Keeps a watch on every folder of a tree that a filter lets through, and reports the events of
/// all of them.
///
/// Threads: any. Folders are listed and watched by start() on the calling thread and later on a
/// strand; the watcher's thread, which serves other folders too, does no work on the file system.
class WatchedTree : public std::enable_shared_from_this<WatchedTree> {
public:
    struct Callbacks { // must not throw, but for the filter
        /// Lets paths through, by their text alone.
        std::function<bool(const Path&)> filter;
        /// Takes each event, on the watcher's thread. @return whether it is disregarded
        std::function<bool(const platform::FolderEvent&)> happened;
        /// Folders were found that had no watch, so changes in them may have gone unreported.
        /// @param isDisregarded the events that led there were all disregarded
        std::function<void(bool isDisregarded)> found;
    };

    WatchedTree(std::shared_ptr<platform::FolderWatcher> watcher, Path root, Callbacks callbacks);

    /// Watches the tree. @throws ChangeEventsSubscriptionException when a host's watcher refuses
    void start();

    /// Drops all watches and reports nothing more.
    void close();

    /// Calls `done` when what was reported before this call is watched; at once when it is already,
    /// else on the strand.
    void whenWatched(UniqueFunction<void()> done);

private:
    using Watches = std::map<Path, std::unique_ptr<platform::FolderWatcher::Watch>>;

    /// What is to be done about a path, the most thorough last.
    enum class Look {
        Inside, ///< watch what it has got
        Anew,   ///< and watch anew what lies in it
        Itself, ///< and the folder itself, if there is one
    };
    struct Work {
        std::map<Path, Look> paths;
        bool isDisregarded = true;
        std::vector<UniqueFunction<void()>> then;
    };

    void happened(const platform::FolderEvent& event) noexcept;
    void note(const Path& path, Look look, bool isDisregarded);
    void noteAll() noexcept;
    void schedule() noexcept;
    void retryLater() noexcept;
    void work();
    bool lookAt(const Path& path, Look look);
    void add(const Path& folder);
    void drop(const Path& folder, bool itself);
    bool watchBelow(const Path& top);
    bool isWatched(const Path& folder);

    const std::shared_ptr<platform::FolderWatcher> m_watcher;
    const Path m_root;
    const Callbacks m_callbacks;
    const std::shared_ptr<Executor> m_strand = createStrandExecutor("DetectorFolders");
    const std::shared_ptr<platform::DelayedTaskService> m_delays;

    std::mutex m_mutex; // guards the rest; never held while the file system is used
    Watches m_watches;  // changed by start() and then on the strand, emptied by close()
    Work m_pending;
    bool m_isUnsure = false; // watches may be missing anywhere
    bool m_isStarted = false;
    bool m_isScheduled = false; // or start() is running
    bool m_isClosed = false;
    std::chrono::milliseconds m_retryDelay;
};

} // namespace quendo
