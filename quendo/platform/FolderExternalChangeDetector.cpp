#include "quendo/platform/FolderExternalChangeDetector.h"

#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"

#include <boost/signals2/signal.hpp>

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace quendo {

using platform::FolderEvent;
using platform::FolderWatcher;
using platform::Severity;

// Every folder that the filter lets through has a watch. A folder is watched before it is listed,
// so what is made in it meanwhile is either listed or told.
//
// disable() and the release of its guard draw lines through the watcher's events. Detection is off
// for what is told between the two, whenever that is; so nothing has to be waited for to know on
// which side a change lies. The release waits for its line nevertheless, for a moment: folders
// that the operation made are watched only when their appearance is told, and what somebody else
// does in one before that is told by nothing.

struct FolderExternalChangeDetector::Impl : std::enable_shared_from_this<Impl> {
    using Watches = std::map<Path, std::unique_ptr<FolderWatcher::Watch>>;

    Impl(Path folder, std::chrono::milliseconds time, Filter letsThrough)
        : root(std::move(folder)), window(time),
          filter(letsThrough ? std::move(letsThrough) : [](const Path&) { return true; }) {}

    // -- The tree. On the watcher's thread, but for start().

    void start() {
        {
            const std::lock_guard lock(treeMutex);
            add(root);
        }
        watchBelow(root);
        const std::lock_guard lock(treeMutex);
        started = true;
    }

    /// With the lock of the tree.
    void add(const Path& folder) {
        if (treeIsClosed)
            return;
        try {
            watches.emplace(folder,
                            watcher->watch(folder, FolderWatcher::Scope::Entries,
                                           [weak = weak_from_this()](const FolderEvent& event) {
                                               if (const auto self = weak.lock())
                                                   self->told(event);
                                           }));
        } catch (const platform::ChangeEventsSubscriptionException&) {
            if (!started)
                throw;
            QUENDO_LOG_CAUGHT_EXCEPTION(); // a host's watcher that refuses will refuse again
        }
    }

    /// Watches what the tree below a watched folder has got. The lock covers listing a folder and
    /// watching what was found: so a folder that vanishes meanwhile is dropped after it was added.
    /// @return whether there was anything new
    bool watchBelow(const Path& top) {
        bool isNew = false;
        for (std::vector<Path> folders{top}; !folders.empty();) {
            const auto folder = std::move(folders.back());
            folders.pop_back();
            const std::lock_guard lock(treeMutex);
            if (watches.count(folder) == 0)
                continue;
            std::error_code ignored; // what cannot be listed cannot be watched better either
            std::filesystem::directory_iterator entry(folder.toNative(), ignored), end;
            for (; !ignored && entry != end; entry.increment(ignored)) {
                std::error_code gone;
                if (entry->symlink_status(gone).type() != std::filesystem::file_type::directory)
                    continue;
                auto child = folder.child(entry->path().filename().native());
                if (watches.count(child) != 0 || !filter(child))
                    continue;
                add(child);
                folders.push_back(std::move(child));
                isNew = true;
            }
        }
        return isNew;
    }

    void drop(const Path& folder, bool itself) {
        Watches dropped; // destroyed without the lock
        const std::lock_guard lock(treeMutex);
        if (itself)
            dropped.insert(watches.extract(folder));
        // What lies below a folder stands together in the order of paths.
        const Path below(std::u16string(folder.string()) + u"/");
        for (auto it = watches.lower_bound(below);
             it != watches.end() && it->first.isBelow(folder);)
            dropped.insert(watches.extract(it++));
    }

    bool isWatched(const Path& folder) {
        const std::lock_guard lock(treeMutex);
        return watches.count(folder) != 0;
    }

    void told(const FolderEvent& event) noexcept {
        try {
            bool isNew = false;
            if (std::exchange(unsure, false)) {
                drop(root, false);
                isNew = watchBelow(root);
            }
            const auto& path = root.isBelow(event.path) ? root : event.path;
            if (event.kind == FolderEvent::Kind::ContentsUnknown) {
                // New watches: what is at a path now need not be what was watched there.
                drop(path, false);
                isNew |= watchBelow(path);
            } else if (!filter(path)) {
                return;
            } else if (event.kind == FolderEvent::Kind::Changed) {
                isNew |= isWatched(path) && watchBelow(path);
            } else {
                drop(path, true);
                if (event.kind == FolderEvent::Kind::Appeared && isFolder(path)) {
                    {
                        const std::lock_guard lock(treeMutex);
                        add(path);
                    }
                    watchBelow(path);
                    isNew = true;
                }
            }
            count(event.polled, isNew);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            unsure = true;
            count(true, true);
        }
    }

    static bool isFolder(const Path& path) {
        std::error_code gone;
        return std::filesystem::symlink_status(path.toNative(), gone).type() ==
               std::filesystem::file_type::directory;
    }

    // -- The switch.

    void turnOff(std::uint64_t number) {
        const std::lock_guard lock(mutex);
        if (number > turnedOnBy)
            isOn = false;
    }

    void turnOn(std::uint64_t number) noexcept {
        {
            const std::lock_guard lock(mutex);
            if (number <= turnedOnBy)
                return;
            turnedOnBy = number;
            isOn = true;
            lineIsOverdue = false;
        }
        stateChanged.notify_all();
    }

    /// Turns detection on when it is called or destroyed uncalled.
    struct OnLine {
        OnLine(std::shared_ptr<Impl> owner, std::uint64_t ownNumber) noexcept
            : impl(std::move(owner)), number(ownNumber) {}
        OnLine(OnLine&&) noexcept = default;
        ~OnLine() { (*this)(); }
        void operator()() noexcept {
            if (const auto owner = std::exchange(impl, nullptr))
                owner->turnOn(number);
        }

        std::shared_ptr<Impl> impl;
        std::uint64_t number;
    };

    std::uint64_t nextNumber() {
        const std::lock_guard lock(mutex);
        return ++switches;
    }

    void release() {
        // Long enough for any queue that is not being filled faster than it is emptied.
        constexpr std::chrono::milliseconds patience{100};
        const auto number = nextNumber();
        watcher->fence(OnLine(shared_from_this(), number));
        std::unique_lock lock(mutex);
        if (!stateChanged.wait_for(lock, patience, [&] { return turnedOnBy >= number; }))
            lineIsOverdue = true;
    }

    // -- The window.

    /// @param polled the change may be older than the line behind which it is told
    /// @param isNew folders were found that nothing had watched
    void count(bool polled, bool isNew) noexcept {
        {
            const std::lock_guard lock(mutex);
            if (isClosed || windowIsOpen || !(isOn || polled || (isNew && lineIsOverdue)))
                return;
            windowIsOpen = true;
        }
        openWindow();
    }

    void openWindow() noexcept {
        try {
            delays->runAfter(window, [weak = weak_from_this()] {
                if (const auto self = weak.lock())
                    self->endWindow();
            });
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            const std::lock_guard lock(mutex);
            windowIsOpen = false; // the next change tries again
        }
    }

    void endWindow() noexcept {
        try {
            strand->post([self = shared_from_this()] { self->notify(); });
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            openWindow();
        }
    }

    void notify() {
        {
            const std::lock_guard lock(mutex);
            windowIsOpen = false;
            if (isClosed)
                return;
            notifier = std::this_thread::get_id();
        }
        try {
            changed();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
        {
            const std::lock_guard lock(mutex);
            notifier = {};
        }
        stateChanged.notify_all();
    }

    void close() {
        Watches dropped; // destroyed without the lock; waits for the watcher's callbacks
        {
            const std::lock_guard lock(treeMutex);
            treeIsClosed = true;
            dropped.swap(watches);
        }
        changed.disconnect_all_slots();
        std::unique_lock lock(mutex);
        isClosed = true;
        stateChanged.wait(lock, [&] {
            return notifier == std::thread::id() || notifier == std::this_thread::get_id();
        });
    }

    const Path root;
    const std::chrono::milliseconds window;
    const Filter filter;
    const std::shared_ptr<FolderWatcher> watcher = platform::services()->folderWatcher;
    const std::shared_ptr<platform::DelayedTaskService> delays = platform::services()->delayedTasks;
    const std::shared_ptr<Executor> strand = createStrandExecutor("ChangeDetector");
    boost::signals2::signal<void()> changed;

    std::mutex treeMutex; // held while watches are made; the other one is not taken in here
    Watches watches;
    bool started = false;
    bool treeIsClosed = false;
    bool unsure = false; // the watcher's thread only: watches may be missing

    std::mutex mutex;
    std::condition_variable stateChanged;
    std::thread::id notifier;
    std::uint64_t switches = 0;   // lines drawn, of both kinds
    std::uint64_t turnedOnBy = 0; // the last of them that has turned detection on
    bool isOn = true;
    bool lineIsOverdue = false;
    bool windowIsOpen = false; // until the notification begins
    bool isClosed = false;
};

FolderExternalChangeDetector::FolderExternalChangeDetector(const Path& folder,
                                                           std::chrono::milliseconds window,
                                                           Filter filter)
    : m_impl(std::make_shared<Impl>(folder, window, std::move(filter))) {
    try {
        m_impl->start();
    } catch (...) {
        m_impl->close();
        throw;
    }
}

FolderExternalChangeDetector::~FolderExternalChangeDetector() {
    m_impl->close();
}

boost::signals2::connection FolderExternalChangeDetector::onChange(const Slot& slot) {
    return m_impl->changed.connect(slot);
}

scope_guard FolderExternalChangeDetector::disable() {
    const std::weak_ptr<Impl> weak = m_impl;
    m_impl->watcher->fence([weak, number = m_impl->nextNumber()] {
        if (const auto impl = weak.lock())
            impl->turnOff(number);
    });
    return scope_guard([weak] {
        if (const auto impl = weak.lock())
            impl->release();
    });
}

} // namespace quendo
