#include "quendo/pool/RootWatch.h"

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/FolderDeletionWatcher.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"

#include <chrono>
#include <mutex>
#include <utility>

namespace quendo {

namespace {

constexpr std::chrono::milliseconds retryInterval{250};

} // namespace

using platform::FolderDeletionWatcher;
using platform::FolderEvent;
using platform::FolderWatcher;

// A deletion watcher tells once, so a new one is made when there is a root again. The folder
// watcher says when to look for that; what is there is looked at on the strand, where the notices
// of both are put into one order.
struct RootWatch::State : std::enable_shared_from_this<State> {
    State(const Path& path, std::function<void()> goneCallback, std::function<void()> backCallback)
        : root(path), gone(std::move(goneCallback)), back(std::move(backCallback)),
          strand(createStrandExecutor("CMRootWatch")) {}

    const Path root;
    const std::function<void()> gone, back;
    const std::shared_ptr<const platform::Services> services = platform::services();
    const std::shared_ptr<Executor> strand;

    std::mutex mutex;
    // Guarded by `mutex`; the watchers are made and destroyed without it.
    bool isStopped = false;
    std::unique_ptr<FolderDeletionWatcher> deletion;
    std::unique_ptr<FolderWatcher::Watch> watch;

    bool isGone = false; ///< of the strand: was told

    void start() {
        auto madeDeletion = makeDeletion();
        auto madeWatch = services->folderWatcher->watch(
            root, FolderWatcher::Scope::Itself,
            [weak = weak_from_this()](const FolderEvent&) { lookLater(weak); });
        {
            const std::lock_guard lock(mutex);
            deletion = std::move(madeDeletion);
            watch = std::move(madeWatch);
        }
        if (isDeleted()) // its notice may have come before the watcher was kept
            lookLater(weak_from_this());
    }

    void stop() {
        std::unique_ptr<FolderDeletionWatcher> oldDeletion;
        std::unique_ptr<FolderWatcher::Watch> oldWatch;
        const std::lock_guard lock(mutex); // goes before those two
        isStopped = true;
        oldDeletion = std::move(deletion);
        oldWatch = std::move(watch);
    }

    std::unique_ptr<FolderDeletionWatcher> makeDeletion() {
        auto made = services->deletionWatchers->watch(root);
        made->onDeleted([weak = weak_from_this()] { lookLater(weak); });
        return made;
    }

    /// When no thread can be had this throws, and the watcher that called it calls it again.
    static void lookLater(const std::weak_ptr<State>& weak) {
        if (const auto self = weak.lock())
            self->strand->post([weak] {
                if (const auto state = weak.lock())
                    state->lookOrRetry();
            });
    }

    /// On the strand: nothing else repeats what fails here.
    void lookOrRetry() noexcept {
        try {
            look();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            retryLater();
        }
    }

    void retryLater() noexcept {
        try {
            services->delayedTasks->runAfter(retryInterval, [weak = weak_from_this()] {
                try {
                    lookLater(weak);
                } catch (...) {
                    QUENDO_LOG_CAUGHT_EXCEPTION();
                    if (const auto self = weak.lock())
                        self->retryLater();
                }
            });
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // the root's next event looks again
        }
    }

    bool isDeleted() {
        const std::lock_guard lock(mutex);
        return !isStopped && deletion != nullptr && deletion->isDeleted();
    }

    /// On the strand.
    void look() {
        if (!isDeleted())
            return;
        if (!std::exchange(isGone, true))
            call(gone);
        if (!services->files->isDirectory(root))
            return;
        auto next = makeDeletion();
        if (next->isDeleted())
            return; // it has gone again, and another notice comes when it returns
        {
            const std::lock_guard lock(mutex);
            if (isStopped)
                return;
            deletion.swap(next);
        }
        next.reset();
        isGone = false;
        call(back);
        // It may have gone before the new watcher's notice was connected.
        if (isDeleted())
            lookLater(weak_from_this());
    }

    static void call(const std::function<void()>& callback) {
        try {
            callback();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }
};

RootWatch::RootWatch(const Path& root, std::function<void()> gone, std::function<void()> back)
    : m_state(std::make_shared<State>(root, std::move(gone), std::move(back))) {
    m_state->start();
}

RootWatch::~RootWatch() {
    m_state->stop();
}

} // namespace quendo
