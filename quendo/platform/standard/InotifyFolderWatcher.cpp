#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <system_error>

// How folders are watched
//
// Two threads. The reader does nothing but move bytes from the kernel's queue, which is short
// (fs.inotify.max_queued_events, 16384 as a rule), to one in memory; the lock that it takes for
// that is never held while anything slow happens. The dispatcher does all else: it finds out whom
// an event concerns, calls the callbacks, and polls. So a slow callback delays other callbacks, but
// loses no events until the queue in memory passes its bound.
//
// A record stands for one path with subscribers, however many. It has a watch of the kernel, which
// belongs to an inode: the same folder under two spellings has two records and one watch. Watches
// are therefore always added with IN_MASK_ADD, which takes nothing from the other record, and are
// removed when no record is left.
//
// A watch follows its inode and not the path. Whenever the inode may have left the path (it was
// deleted, moved, unmounted; a parent that is watched says that an entry went or came; events were
// lost) the record is visited: the watch is added anew by path. The kernel gives the number of the
// old watch if it is the same folder, and then nothing was missed. Another number means another
// folder, whose contents nobody has heard of: ContentsUnknown. And no number means that the folder
// is polled until it has one: until the round finds it, or its parent says that it came or may be
// read now, or a parent is watched by which it has come already. Numbers are not used twice, so
// what the kernel still says about watches that were given up finds no record and means nothing.
//
// The kernel tells that a folder was deleted when its last user closes it, and a shell whose
// working folder it is may be such a user for days. Its parent hears of it at once. Therefore a
// parent that is watched for itself alone gets the comings and goings of its entries all the same
// when an entry of it is watched. When no parent is watched, such a deletion is told late.
//
// Mounts. No watch hears that a file system was mounted over its folder, and one that is detached
// while somebody works in it is told of when he leaves. But the kernel wakes who polls the table of
// mounts; what lies at or below a place that has changed in there is visited.
//
// What the kernel cannot tell: that a folder above was renamed that nobody watches, and what other
// machines do in a network file system. The latter is polled beside being watched. A visited record
// is polled as well when it has no watch: because there is nothing at its path, or for want of
// permission or of watches.
//
// Polling compares listings (FolderListing). The first is taken before watch() returns; where there
// is none the round tells ContentsUnknown.
//
// Lines (fence()) are drawn by whoever asks: he takes in what the kernel holds himself, so what he
// does afterwards comes behind it in the queue in memory, and the line has a place in there. When
// that queue was dropped, the line stands behind the news of that.
//
// Order: the watch is added first, then the folder is looked at, by the round or by whoever is told
// ContentsUnknown. What happens in between is told twice, never not at all.

namespace quendo::platform {

const std::vector<std::uint32_t>& remoteFileSystems() {
    static const auto& types = *new std::vector<std::uint32_t>{
        0x6969,     // NFS
        0x517B,     // SMB
        0xFF534D42, // CIFS
        0xFE534D42, // SMB 2 and 3
        0x65735546, // FUSE: sshfs and its kind
        0x01021997, // 9p: the host's folders in a virtual machine
        0x5346414F, // AFS
        0x6B414653, // the kernel's AFS
        0x00C36400, // Ceph
        0x73757245, // Coda
        0x564C,     // NetWare
        0x0BD00BD0, // Lustre
        0x47504653, // GPFS
        0x01161970, // GFS2
        0x7461636F, // OCFS2
        0x786F4256, // VirtualBox
        0xBACBACBC, // VMware
        0x7C7C6673, // Parallels
    };
    return types;
}

std::unique_ptr<FolderWatcher::Watch>
InotifyFolderWatcher::Impl::watch(const Path& folder, Scope scope, Callback callback) {
    const auto subscription = std::make_shared<Subscription>(
        Subscription{scope, std::make_unique<const Callback>(std::move(callback))});
    // Takes back what is done here when memory runs short.
    auto handle = std::make_unique<Handle>(shared_from_this(), subscription);
    auto record = std::make_shared<Record>(folder);
    const bool remote = isRemote(record->native);
    {
        const std::lock_guard lock(mutex);
        const auto [place, isNew] = records.try_emplace(folder, record);
        record = subscription->record = place->second;
        record->subscriptions.push_back(subscription);
        if (!startDispatcher()) {
            setHealth(*record, {WatchHealth::Means::NotWatched, noThreadReason});
            return handle;
        }
        if (isNew) {
            record->isRemote = remote;
            if (const auto parent = records.find(folder.parentPath()); parent != records.end())
                widen(parent->second);
            arm(record);
            updateHealth(*record);
            if (record->watch >= 0)
                armAwaitedBelow(folder);
        } else {
            widen(record);
        }
        if (!record->isPolled())
            return handle;
        if (!isNew) {
            // Its listing is older than this subscription: what changed in between and back would
            // not be told. The visit tells ContentsUnknown, and may find it can be watched by now.
            suspects.push_back(record);
            wake();
            return handle;
        }
    }
    auto listing = FolderListing::take(record->native, scope == Scope::Entries);
    const std::lock_guard lock(mutex);
    if (!record->listing)
        record->listing = std::move(listing);
    return handle;
}

void InotifyFolderWatcher::Impl::end(const std::shared_ptr<Subscription>& subscription) noexcept {
    std::shared_ptr<Record> record;
    std::unique_ptr<const Callback> callback; // both destroyed without the lock
    std::unique_lock lock(mutex);
    record = std::exchange(subscription->record, nullptr);
    if (record == nullptr)
        return;
    std::erase(record->subscriptions, subscription);
    if (record->subscriptions.empty()) {
        detach(*record);
        if (record->isCounted)
            --notNative;
        records.erase(record->folder);
        if (records.empty())
            wake();
    }
    callbackEnded.wait(lock, [&] {
        return running != subscription.get() || dispatcher == std::this_thread::get_id();
    });
    if (running != subscription.get())
        callback = std::move(subscription->callback);
}

void InotifyFolderWatcher::Impl::fence(UniqueFunction<void()> reached) {
    std::list<Line> line;
    line.emplace_back().reached = std::move(reached);
    std::shared_ptr<Session> current;
    {
        const std::lock_guard lock(mutex);
        current = session;
    }
    if (current != nullptr) {
        // Not more than is there now: others may be writing.
        int size = 0;
        ::ioctl(current->inotify.get(), FIONREAD, &size);
        const std::lock_guard lock(current->readMutex);
        while (size > 0) {
            const int taken = take(*current);
            if (taken == 0)
                break;
            size -= taken;
        }
    }
    const std::lock_guard lock(mutex);
    if (!startDispatcher())
        throw std::system_error(EAGAIN, std::generic_category(), noThreadReason);
    const std::lock_guard inboxLock(inboxMutex);
    line.front().session = session.get();
    line.front().at = session != nullptr ? session->bytes.size() : 0;
    lines.splice(lines.end(), line);
    inboxChanged.notify_all();
}

void InotifyFolderWatcher::Impl::wake() noexcept {
    const std::lock_guard lock(inboxMutex);
    woken = true;
    inboxChanged.notify_all();
}

bool InotifyFolderWatcher::Impl::startDispatcher() {
    if (isDispatching)
        return true;
    try {
        options.startThread([self = shared_from_this()] { self->dispatch(); });
    } catch (const std::system_error&) {
        return false;
    }
    nextRound = std::chrono::steady_clock::now(); // for those that came when there was none
    return isDispatching = true;
}

/// @return the error when there is no session
int InotifyFolderWatcher::Impl::startSession() {
    if (session != nullptr)
        return 0;
    auto next = std::make_shared<Session>();
    if (next->error != 0)
        return next->error;
    next->buffer.resize(256U << 10U);
    try {
        options.startThread([self = shared_from_this(), next] { self->read(*next); });
    } catch (const std::system_error&) {
        return EAGAIN;
    }
    session = std::move(next);
    limitReached = false;
    wake();
    return 0;
}

std::shared_ptr<InotifyFolderWatcher> InotifyFolderWatcher::instance() {
    static const auto& watcher =
        *new std::shared_ptr<InotifyFolderWatcher>(std::make_shared<InotifyFolderWatcher>());
    return watcher;
}

InotifyFolderWatcher::InotifyFolderWatcher(InotifyFolderWatcherOptions options)
    : m_impl(std::make_shared<Impl>(std::move(options))) {}

InotifyFolderWatcher::~InotifyFolderWatcher() = default;

std::unique_ptr<FolderWatcher::Watch> InotifyFolderWatcher::watch(const Path& folder, Scope scope,
                                                                  Callback callback) {
    return m_impl->watch(folder, scope, std::move(callback));
}

void InotifyFolderWatcher::fence(UniqueFunction<void()> reached) {
    m_impl->fence(std::move(reached));
}

WatchHealth InotifyFolderWatcher::getHealth(const Path& folder) const {
    const std::lock_guard lock(m_impl->mutex);
    const auto found = m_impl->records.find(folder);
    return found != m_impl->records.end() ? found->second->health : WatchHealth{};
}

boost::signals2::connection InotifyFolderWatcher::connectHealthChanged(const HealthSlot& slot) {
    return m_impl->healthChanged.connect(slot);
}

} // namespace quendo::platform
