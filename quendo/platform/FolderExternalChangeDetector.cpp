#include "quendo/platform/FolderExternalChangeDetector.h"

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/DetectionSwitch.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/WatchedTree.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

// From an event to a notification
//
//   watcher's thread  | WatchedTree -> DetectionSwitch: report it? -> count(): opens the window
//   strand of folders | WatchedTree: lists and watches what is new  -> count(), when it may be late
//   delays            | the window ends
//   strand            | notify(): the listeners
//
// All of them hold the Impl weakly, but for a notification, which holds it until its listeners have
// returned. So the detector may be destroyed on any thread, with any lock held: it waits for no
// listener. A notification under way goes on with the listener that runs, and calls no other.
//
// A notification for which no thread can be had is not lost: without a thread for the window it is
// posted at once, without one for the strand it is tried again after 250 ms, then after twice that
// and so on, and without either with the next event, suspension or operation. The same holds when a
// listener fails for want of a thread or of memory.
//
// The release of a suspension waits a moment until all that happened before was looked at: folders
// that an operation made are watched only when their appearance was reported, and what another
// program does in one before that is reported by nothing. When that takes longer, folders that are
// found late count as a change.

namespace quendo {

using platform::FolderEvent;

namespace {

constexpr std::chrono::milliseconds firstRetry{250}, lastRetry{30'000};
// Long enough for any queue that is not being filled faster than it is emptied.
constexpr std::chrono::milliseconds releasePatience{100};

} // namespace

struct FolderExternalChangeDetector::Impl : std::enable_shared_from_this<Impl> {
    Impl(Path folder, std::chrono::milliseconds time) : root(std::move(folder)), window(time) {}

    void start(Filter letsThrough) {
        const auto weak = weak_from_this();
        const auto watcher = platform::services()->folderWatcher;
        detection = std::make_shared<DetectionSwitch>(watcher, root, [weak] {
            if (const auto self = weak.lock())
                self->count();
        });
        WatchedTree::Callbacks callbacks;
        callbacks.filter = letsThrough ? std::move(letsThrough) : [](const Path&) { return true; };
        callbacks.happened = [weak](const FolderEvent& event) {
            const auto self = weak.lock();
            return self == nullptr || self->happened(event);
        };
        callbacks.found = [weak](bool isDisregarded) {
            if (const auto self = weak.lock();
                self != nullptr && (!isDisregarded || self->isReleaseLate()))
                self->count();
        };
        tree = std::make_shared<WatchedTree>(watcher, root, std::move(callbacks));
        tree->start();
    }

    bool happened(const FolderEvent& event) noexcept {
        const bool isDisregarded = detection->disregards(event);
        if (!isDisregarded)
            count();
        else
            countOwed();
        return isDisregarded;
    }

    // -- The release

    struct Release {
        bool isDone = false, isLate = false; // guarded by the mutex
    };

    /// Called, or destroyed uncalled, when nothing is left to wait for.
    struct ReleaseEnd {
        ReleaseEnd(const std::shared_ptr<Impl>& impl, std::shared_ptr<Release> release) noexcept
            : owner(impl), ended(std::move(release)) {}
        ReleaseEnd(ReleaseEnd&&) noexcept = default;
        ~ReleaseEnd() { (*this)(); }
        void operator()() noexcept {
            const auto release = std::exchange(ended, nullptr);
            const auto impl = owner.lock();
            if (release == nullptr || impl == nullptr)
                return;
            const std::lock_guard lock(impl->mutex);
            release->isDone = true;
            if (release->isLate)
                --impl->lateReleases;
            impl->releaseEnded.notify_all();
        }

        std::weak_ptr<Impl> owner;
        std::shared_ptr<Release> ended;
    };

    void release() {
        countOwed();
        const auto release = std::make_shared<Release>();
        detection->turnOn(
            [folders = tree, end = ReleaseEnd(shared_from_this(), release)]() mutable {
                folders->whenWatched(std::move(end));
            });
        std::unique_lock lock(mutex);
        if (!releaseEnded.wait_for(lock, releasePatience, [&] { return release->isDone; })) {
            release->isLate = true;
            ++lateReleases;
        }
    }

    bool isReleaseLate() {
        const std::lock_guard lock(mutex);
        return lateReleases != 0;
    }

    // -- The window

    void count() noexcept {
        {
            const std::lock_guard lock(mutex);
            isOwing = false;
            if (isClosed || windowIsOpen)
                return;
            windowIsOpen = true;
        }
        openWindow(window);
    }

    void countOwed() noexcept {
        {
            const std::lock_guard lock(mutex);
            if (!isOwing)
                return;
        }
        count();
    }

    void openWindow(std::chrono::milliseconds time) noexcept {
        try {
            delays->runAfter(time, [weak = weak_from_this()] {
                if (const auto self = weak.lock())
                    self->endWindow();
            });
            return;
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
        if (post())
            return;
        const std::lock_guard lock(mutex);
        windowIsOpen = false;
        isOwing = true;
    }

    bool post() noexcept {
        try {
            strand->post([self = shared_from_this()] { self->notify(); });
            return true;
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            return false;
        }
    }

    void endWindow() noexcept {
        if (!post())
            retry();
    }

    void retry() noexcept {
        std::chrono::milliseconds delay;
        {
            const std::lock_guard lock(mutex);
            delay = std::exchange(retryDelay, std::min(2 * retryDelay, lastRetry));
        }
        openWindow(delay);
    }

    void notify() {
        {
            const std::lock_guard lock(mutex);
            windowIsOpen = false;
            if (isClosed)
                return;
        }
        bool isTold = true;
        try {
            changed();
        } catch (const std::bad_alloc&) {
            isTold = false;
        } catch (const std::system_error&) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            isTold = false;
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
        {
            const std::lock_guard lock(mutex);
            if (isTold)
                retryDelay = firstRetry;
            if (isTold || isClosed || windowIsOpen)
                return;
            windowIsOpen = true;
        }
        retry();
    }

    void close() {
        if (tree != nullptr)
            tree->close();
        changed.disconnect_all_slots();
        const std::lock_guard lock(mutex);
        isClosed = true;
    }

    const Path root;
    const std::chrono::milliseconds window;
    const std::shared_ptr<platform::DelayedTaskService> delays = platform::services()->delayedTasks;
    const std::shared_ptr<Executor> strand = createStrandExecutor("ChangeDetector");
    std::shared_ptr<DetectionSwitch> detection; // constant after start()
    std::shared_ptr<WatchedTree> tree;          // constant after start()
    boost::signals2::signal<void()> changed;

    std::mutex mutex; // guards the rest; no other is taken under it
    std::condition_variable releaseEnded;
    std::size_t lateReleases = 0; // that have given up waiting and have not ended
    std::chrono::milliseconds retryDelay = firstRetry;
    bool windowIsOpen = false; // until the notification begins
    bool isOwing = false;      // a notification for which there was no thread
    bool isClosed = false;
};

FolderExternalChangeDetector::FolderExternalChangeDetector(const Path& folder,
                                                           std::chrono::milliseconds window,
                                                           Filter filter)
    : m_impl(std::make_shared<Impl>(folder, window)) {
    try {
        m_impl->start(std::move(filter));
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
    m_impl->countOwed();
    m_impl->detection->turnOff();
    return scope_guard([weak = std::weak_ptr(m_impl)] {
        if (const auto impl = weak.lock())
            impl->release();
    });
}

scope_guard FolderExternalChangeDetector::disable(std::shared_ptr<OwnWrites>& writes) {
    m_impl->countOwed();
    writes = m_impl->detection->makeOwnWrites();
    return scope_guard([weak = std::weak_ptr(m_impl), writes] {
        writes->end();
        if (const auto impl = weak.lock())
            impl->release();
    });
}

} // namespace quendo
