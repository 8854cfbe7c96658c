#include "quendo/platform/WatchedTree.h"

#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <filesystem>
#include <utility>

// How the watches follow the tree
//
// A folder is watched before it is listed, so what is made in it meanwhile is either listed or
// reported by an event.
//
// Listing a folder, asking what lies at a path and adding a watch may take for ever on a dead
// network mount. So an event only notes its path, once however many events there are, and a task on
// the strand looks there. It compares with what there is now and not with what the event said, so
// notes may be combined in any way. Past `mostPaths` the whole tree is looked at.
//
// An event is reported, or disregarded, when it is delivered. A folder that is found later has no
// events of its own: what changed in it before it was watched is reported with found(), on the side
// of the events that led to the folder.

namespace quendo {
namespace {

constexpr std::size_t mostPaths = 1000;
constexpr std::chrono::milliseconds firstRetry{250}, lastRetry{30'000};

bool isFolder(const Path& path) {
    std::error_code gone;
    return std::filesystem::symlink_status(path.toNative(), gone).type() ==
           std::filesystem::file_type::directory;
}

} // namespace

using platform::FolderEvent;
using platform::FolderWatcher;

WatchedTree::WatchedTree(std::shared_ptr<FolderWatcher> watcher, Path root, Callbacks callbacks)
    : m_watcher(std::move(watcher)), m_root(std::move(root)), m_callbacks(std::move(callbacks)),
      m_delays(platform::services()->delayedTasks), m_retryDelay(firstRetry) {}

void WatchedTree::start() {
    {
        const std::lock_guard lock(m_mutex);
        m_isScheduled = true;
    }
    add(m_root);
    watchBelow(m_root);
    {
        const std::lock_guard lock(m_mutex);
        m_isStarted = true;
        m_isScheduled = false;
    }
    schedule();
}

void WatchedTree::close() {
    Watches watches; // destroyed without the lock: that waits for the watcher's callbacks
    Work work;
    const std::lock_guard lock(m_mutex);
    m_isClosed = true;
    watches.swap(m_watches);
    std::swap(work, m_pending);
}

void WatchedTree::whenWatched(UniqueFunction<void()> done) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_isScheduled || m_isUnsure || !m_pending.paths.empty()) {
            if (!m_isClosed)
                m_pending.then.push_back(std::move(done));
            return;
        }
    }
    done();
}

// -- On the watcher's thread

void WatchedTree::happened(const FolderEvent& event) noexcept {
    try {
        const auto& path = m_root.isBelow(event.path) ? m_root : event.path;
        const bool isUnknown = event.kind == FolderEvent::Kind::ContentsUnknown;
        if (!isUnknown && !m_callbacks.filter(path))
            return;
        const bool isDisregarded = m_callbacks.happened({event.kind, path, event.polled});
        if (isUnknown)
            note(path, Look::Anew, isDisregarded);
        else if (event.kind != FolderEvent::Kind::Changed)
            note(path, Look::Itself, isDisregarded);
        else if (isWatched(path))
            note(path, Look::Inside, isDisregarded);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        noteAll();
        m_callbacks.found(false); // the event may not have been reported
    }
    schedule();
}

bool WatchedTree::isWatched(const Path& folder) {
    const std::lock_guard lock(m_mutex);
    return m_watches.count(folder) != 0;
}

void WatchedTree::note(const Path& path, Look look, bool isDisregarded) {
    const std::lock_guard lock(m_mutex);
    auto& noted = m_pending.paths.try_emplace(path, look).first->second;
    noted = std::max(noted, look);
    m_pending.isDisregarded &= isDisregarded;
    if (m_pending.paths.size() > mostPaths) {
        m_pending.paths.clear();
        m_isUnsure = true;
    }
}

void WatchedTree::noteAll() noexcept {
    const std::lock_guard lock(m_mutex);
    m_pending.paths.clear();
    m_pending.isDisregarded = false;
    m_isUnsure = true;
}

void WatchedTree::schedule() noexcept {
    {
        const std::lock_guard lock(m_mutex);
        if (m_isScheduled || m_isClosed || (m_pending.paths.empty() && !m_isUnsure))
            return;
        m_isScheduled = true;
    }
    try {
        m_strand->post([self = shared_from_this()] { self->work(); });
        return;
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
    {
        const std::lock_guard lock(m_mutex);
        m_isScheduled = false;
    }
    retryLater();
}

/// Without a thread for that either, the next event tries again.
void WatchedTree::retryLater() noexcept {
    try {
        std::chrono::milliseconds delay;
        {
            const std::lock_guard lock(m_mutex);
            delay = m_retryDelay;
            m_retryDelay = std::min(2 * delay, lastRetry);
        }
        m_delays->runAfter(delay, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->schedule();
        });
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

// -- On the strand

void WatchedTree::work() {
    bool hasFailed = false;
    while (!hasFailed) {
        Work work;
        bool isUnsure = false;
        {
            const std::lock_guard lock(m_mutex);
            std::swap(work, m_pending);
            isUnsure = std::exchange(m_isUnsure, false);
            if (m_isClosed || (work.paths.empty() && work.then.empty() && !isUnsure)) {
                m_isScheduled = false;
                return;
            }
        }
        bool hasFound = false;
        try {
            if (isUnsure)
                work.paths.insert_or_assign(m_root, Look::Anew);
            const Path* whole = nullptr; // with all that lies below
            for (const auto& [path, look] : work.paths) {
                if (whole != nullptr && path.isBelow(*whole))
                    continue;
                hasFound |= lookAt(path, look);
                if (look != Look::Inside)
                    whole = &path;
            }
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            noteAll();
            hasFailed = hasFound = true;
            work.isDisregarded = false;
        }
        if (hasFound)
            m_callbacks.found(work.isDisregarded);
        for (auto& done : work.then)
            done();
        const std::lock_guard lock(m_mutex);
        if (!hasFailed)
            m_retryDelay = firstRetry;
        else
            m_isScheduled = false;
    }
    retryLater();
}

/// @return whether a folder was found that had no watch
bool WatchedTree::lookAt(const Path& path, Look look) {
    if (look == Look::Itself) {
        drop(path, true);
        if (!isFolder(path))
            return false;
        add(path);
        watchBelow(path);
        return true;
    }
    // New watches: what is at a path now need not be what was watched there.
    if (look == Look::Anew)
        drop(path, false);
    return watchBelow(path);
}

void WatchedTree::add(const Path& folder) {
    Watches::mapped_type watch; // destroyed without the lock
    try {
        watch = m_watcher->watch(folder, FolderWatcher::Scope::Entries,
                                 [weak = weak_from_this()](const FolderEvent& event) {
                                     if (const auto self = weak.lock())
                                         self->happened(event);
                                 });
    } catch (const platform::ChangeEventsSubscriptionException&) {
        const std::lock_guard lock(m_mutex);
        if (!m_isStarted)
            throw;
        QUENDO_LOG_CAUGHT_EXCEPTION(); // a host's watcher that refuses will refuse again
        return;
    }
    const std::lock_guard lock(m_mutex);
    if (!m_isClosed)
        std::swap(m_watches[folder], watch);
}

void WatchedTree::drop(const Path& folder, bool itself) {
    Watches dropped; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    if (itself)
        dropped.insert(m_watches.extract(folder));
    // What lies below a folder stands together in the order of paths.
    const Path below(std::u16string(folder.string()) + u"/");
    for (auto it = m_watches.lower_bound(below);
         it != m_watches.end() && it->first.isBelow(folder);)
        dropped.insert(m_watches.extract(it++));
}

bool WatchedTree::watchBelow(const Path& top) {
    bool hasFound = false;
    for (std::vector<Path> folders{top}; !folders.empty();) {
        const auto folder = std::move(folders.back());
        folders.pop_back();
        if (!isWatched(folder))
            continue;
        std::error_code ignored; // what cannot be listed cannot be watched better either
        std::filesystem::directory_iterator entry(folder.toNative(), ignored), end;
        for (; !ignored && entry != end; entry.increment(ignored)) {
            auto child = folder.child(entry->path().filename().native());
            // What is refused is not even looked at: it may hang, or there may be much of it.
            if (isWatched(child) || !m_callbacks.filter(child))
                continue;
            std::error_code gone;
            if (entry->symlink_status(gone).type() != std::filesystem::file_type::directory)
                continue;
            add(child);
            folders.push_back(std::move(child));
            hasFound = true;
        }
    }
    return hasFound;
}

} // namespace quendo
