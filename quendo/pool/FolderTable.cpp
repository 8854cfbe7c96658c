#include "quendo/pool/FolderTable.h"

#include "quendo/platform/Logging.h"
#include "quendo/platform/ScopeGuard.h"
#include "quendo/platform/SourceControlException.h"
#include "quendo/pool/PooledManagedFolder.h"

#include <chrono>
#include <exception>
#include <future>
#include <string>
#include <utility>

// Making. Two requests for one root must get the same folder, but making a folder calls adapters
// and services of the host, which may be slow, hang, or request folders themselves. So the lock is
// held only to look and to enter "this thread makes the folder of this root" (Making); the folder
// is made without it. Later requests for the root wait for the Making, requests for other roots go
// on. A failed construction unwinds on the thread that made it, without the lock.
//
// A thread that makes a folder and requests the same root again would wait for itself, and so would
// two threads that make a folder each and request the other's root. m_waiting tells which Making a
// thread waits for; a request that would close such a circle throws. A thread that the maker waits
// for by other means is not known here; its wait ends at `longestWait`.
//
// Notices. A folder is destroyed on whatever thread lets go of it, and until its destructor has
// ended another thread may have made the next folder of the root. Listeners must not take the
// release of the one for that of the other. So notices about a root are queued, under the lock, in
// the order made, deleted (any number), released, made, and so on:
//
// - the request that makes the next folder queues the release of the one before it if that has not
//   been queued yet, and the destructor of the former then queues nothing (Life::state);
// - a deletion of the root that is noticed while its folder is being made waits for the notice that
//   the folder was made; one behind the release is dropped.
//
// announce() runs the queued notices of a root one at a time. A thread that finds another one at it
// leaves its own notice to that thread and does not wait, because the other one may be in a
// listener that waits for this thread.
//
// Not guaranteed: that the destructor of a released folder has ended when its release is announced;
// that a notice runs before the call that queued it returns, when notices about the same root are
// being announced at that moment.

namespace quendo {
namespace {

constexpr std::chrono::minutes longestWait{2};

} // namespace

class FolderTable::Life {
public:
    enum class State { Making, Alive, Released };

    // Guarded by the table's lock.
    State state = State::Making;
    bool isRootDeleted = false; ///< noticed while Making
};

/// A folder that is being made.
struct FolderTable::Making {
    const std::thread::id maker = std::this_thread::get_id();
    std::promise<Folder> promise;
    const std::shared_future<Folder> result = promise.get_future().share();
    bool isOver = false; ///< guarded by the table's lock
};

struct FolderTable::Root {
    std::weak_ptr<PooledManagedFolder> folder;
    std::shared_ptr<Life> life; ///< of `folder`, until its release is queued
    std::shared_ptr<Making> making;
    Notices notices;
    bool isAnnouncing = false;

    bool isIdle() const {
        return life == nullptr && making == nullptr && notices.empty() && !isAnnouncing;
    }
};

FolderTable::FolderTable(Announcements announcements) : m_announcements(std::move(announcements)) {}
FolderTable::~FolderTable() = default;

FolderTable::Folder FolderTable::find(const Path& root) const {
    const auto hold = m_lock.read();
    const auto found = m_roots.find(root);
    return found != m_roots.end() ? found->second.folder.lock() : nullptr;
}

std::vector<FolderTable::Folder> FolderTable::getFolders() const {
    std::vector<Folder> folders; // destroyed without the lock
    const auto hold = m_lock.read();
    folders.reserve(m_roots.size());
    for (const auto& [path, root] : m_roots) {
        if (auto folder = root.folder.lock())
            folders.push_back(std::move(folder));
    }
    return folders;
}

std::pair<FolderTable::Folder, bool>
FolderTable::obtain(const Path& root, const std::function<Folder(std::shared_ptr<Life>)>& make) {
    const auto life = std::make_shared<Life>();
    auto mine = std::make_shared<Making>();
    std::shared_ptr<Making> making;
    {
        Folder folder; // destroyed without the lock
        const auto hold = m_lock.write();
        auto& entry = m_roots[root];
        if ((folder = entry.folder.lock()) != nullptr)
            return {std::move(folder), false};
        if (entry.making == nullptr) {
            entry.making = mine;
        } else {
            refuseCycle(root, *entry.making);
            m_waiting[mine->maker] = entry.making;
        }
        making = entry.making;
    }
    if (making != mine)
        return {await(root, *making), false};
    try {
        auto folder = make(life);
        publish(root, folder, life);
        making->promise.set_value(folder);
        return {std::move(folder), true};
    } catch (...) {
        abandon(root);
        making->promise.set_exception(std::current_exception());
        throw;
    }
}

/// Under the lock.
void FolderTable::refuseCycle(const Path& root, const Making& making) const {
    for (const auto* each = &making; each != nullptr && !each->isOver;) {
        if (each->maker == std::this_thread::get_id())
            throw exception::SourceControlException(
                "The working copy " + root.toUtf8() +
                " is being opened by this very request, or by one that waits for it: an adapter "
                "factory, an adapter or a service of the host must not request it meanwhile");
        const auto next = m_waiting.find(each->maker);
        each = next != m_waiting.end() ? next->second.get() : nullptr;
    }
}

FolderTable::Folder FolderTable::await(const Path& root, const Making& making) {
    const scope_guard end([&] {
        const auto hold = m_lock.write();
        m_waiting.erase(std::this_thread::get_id());
    });
    if (making.result.wait_for(longestWait) != std::future_status::ready)
        throw exception::SourceControlException(
            "The working copy " + root.toUtf8() + " has been opening for more than " +
            std::to_string(longestWait.count()) +
            " minutes, by another request: its disk may not answer; try again later");
    return making.result.get();
}

void FolderTable::publish(const Path& root, const Folder& folder,
                          const std::shared_ptr<Life>& life) {
    // All that needs memory comes before the lock.
    auto releaseOfFormer = releaseNotice(root);
    Notices made, deleted;
    made.emplace_back([this, folder] { m_announcements.made(folder); });
    deleted.emplace_back([this, root] { m_announcements.deleted(root); });
    const auto hold = m_lock.write();
    auto& entry = m_roots.at(root);
    if (entry.life != nullptr) {
        entry.life->state = Life::State::Released;
        entry.notices.splice(entry.notices.end(), releaseOfFormer);
    }
    entry.life = life;
    entry.folder = folder;
    life->state = Life::State::Alive;
    entry.notices.splice(entry.notices.end(), made);
    if (life->isRootDeleted)
        entry.notices.splice(entry.notices.end(), deleted);
    std::exchange(entry.making, nullptr)->isOver = true;
}

void FolderTable::abandon(const Path& root) noexcept {
    const auto hold = m_lock.write();
    const auto found = m_roots.find(root);
    std::exchange(found->second.making, nullptr)->isOver = true;
    if (found->second.isIdle())
        m_roots.erase(found);
}

FolderTable::Notices FolderTable::releaseNotice(const Path& root) const {
    Notices notice;
    notice.emplace_back([this, root] { m_announcements.released(root); });
    return notice;
}

void FolderTable::release(const Path& root, const std::shared_ptr<Life>& life) noexcept {
    try {
        auto notice = releaseNotice(root);
        {
            const auto hold = m_lock.write();
            if (std::exchange(life->state, Life::State::Released) != Life::State::Alive)
                return;
            auto& entry = m_roots.at(root);
            entry.life = nullptr;
            entry.notices.splice(entry.notices.end(), notice);
        }
        announce(root);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION(); // the next folder's maker announces it
    }
}

void FolderTable::noteDeletion(const Path& root, const std::shared_ptr<Life>& life) {
    Notices notice;
    notice.emplace_back([this, root] { m_announcements.deleted(root); });
    {
        const auto hold = m_lock.write();
        if (life->state == Life::State::Making)
            life->isRootDeleted = true;
        if (life->state != Life::State::Alive)
            return;
        auto& entry = m_roots.at(root);
        entry.notices.splice(entry.notices.end(), notice);
    }
    announce(root);
}

void FolderTable::announce(const Path& root) noexcept {
    Notices notice; // destroyed without the lock
    for (bool isMine = false;; isMine = true) {
        {
            const auto hold = m_lock.write();
            const auto found = m_roots.find(root);
            if (found == m_roots.end())
                return;
            auto& entry = found->second;
            if (entry.isAnnouncing && !isMine)
                return;
            entry.isAnnouncing = !entry.notices.empty();
            if (!entry.isAnnouncing) {
                if (entry.isIdle())
                    m_roots.erase(found);
                return;
            }
            notice.splice(notice.end(), entry.notices, entry.notices.begin());
        }
        try {
            notice.front()();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
        notice.clear();
    }
}

} // namespace quendo
