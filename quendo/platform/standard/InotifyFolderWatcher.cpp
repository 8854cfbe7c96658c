#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <system_error>

// How folders are watched
//
// Two threads. The reader does nothing but move bytes from the kernel's queue, which is short
// (fs.inotify.max_queued_events, 16384 as a rule), to one in memory; the lock that it takes for
// that is never held while anything slow happens. The dispatcher does all else: it finds out whom
// an event concerns, and calls the callbacks. So a slow callback delays other callbacks, but loses
// no events until the queue in memory passes its bound. Polling, and all calls on remote file
// systems, which may hang, are left to further threads: see InotifyLanes.cpp.
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
// is polled until it has one: until polling finds it, or its parent says that it came or may be
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
// is none the first pass tells ContentsUnknown. A folder that is watched natively again after it
// was polled is listed once more behind its new watch, and compared.
//
// A look is what adds the watch of a folder, and lists it where it is polled. It is begun and
// settled under the mutex, and its system calls are made in between without it, also by several
// threads for one folder: adding a watch twice does no harm. Looks at a record are numbered. The
// one that began last decides which watch the record has; an older one that ends later is dropped,
// since whatever makes a record's watch wrong begins another look. Three things can happen to a
// watch between the call that adds it and its place in the table. Its folder may be moved or
// deleted, or something may happen in the folder after it was listed: events of that time are
// noted, whatever record they find (the strays), and have the record visited. And another record of
// the same folder may end: watches without a record are therefore removed only when no look is
// under way that may have got the same one.
//
// Lines (fence()) are drawn by whoever asks: he takes in what the kernel holds himself, so what he
// does afterwards comes behind it in the queue in memory, and the line has a place in there. When
// that queue was dropped, the line stands behind the news of that.
//
// A callback that fails for want of memory or of a thread has not been told: it is called again
// with ContentsUnknown at the poll interval, until it does not fail. When the dispatcher itself has
// no memory, all events count as lost, and every folder is told as ContentsUnknown.
//
// Order: the watch is added first, then the folder is looked at, by polling or by whoever is told
// ContentsUnknown. What happens in between is told twice, never not at all.

namespace quendo::platform {

std::shared_ptr<const MountTable> CurrentMounts::get() {
    const std::lock_guard lock(m_mutex);
    if (m_file.get() < 0) {
        m_file = Descriptor(::open(mountTablePath, O_RDONLY | O_CLOEXEC));
        m_table = nullptr;
    }
    pollfd file{m_file.get(), POLLPRI, 0};
    if (m_table == nullptr || (::poll(&file, 1, 0) > 0 && file.revents != 0))
        m_table = std::make_shared<const MountTable>(m_calls.mountTable(m_file.get()), m_remote);
    return m_table;
}

void CurrentMounts::close() {
    const std::lock_guard lock(m_mutex);
    m_file = Descriptor();
    m_table = nullptr;
}

InotifyFolderWatcher::Impl::Impl(InotifyFolderWatcherOptions watcherOptions)
    : options(std::move(watcherOptions)),
      // A thread is started quickly, and none waits for the next pass.
      pool({std::chrono::milliseconds(100), options.startThread}),
      budget([calls = options.calls] { return calls->watchLimit(); }) {}

std::unique_ptr<FolderWatcher::Watch>
InotifyFolderWatcher::Impl::watch(const Path& folder, Scope scope, Callback callback) {
    const auto subscription = std::make_shared<Subscription>(
        Subscription{scope, std::make_unique<const Callback>(std::move(callback))});
    // Takes back what is done here when memory runs short.
    auto handle = std::make_unique<Handle>(shared_from_this(), subscription);
    auto record = std::make_shared<Record>(folder);
    const auto remote = findRemote(record->native);
    std::unique_lock lock(mutex); // given up before the handle goes
    record->lane = laneOf(remote);
    const auto [place, isNew] = records.try_emplace(folder, record);
    record = subscription->record = place->second;
    record->subscriptions.push_back(subscription);
    setGroup(record, scope);
    if (!startDispatcher()) {
        record->isOwed = true;
        setHealth(record, {WatchHealth::Means::NotWatched, noThreadReason});
        return handle;
    }
    const bool isFirst = record->settled == 0;
    if (record->isRemote() && isFirst)
        updateHealth(record);
    std::vector<RecordPtr> targets;
    if (isNew)
        if (const auto parent = records.find(folder.parentPath());
            parent != records.end() && needsWidening(*parent->second))
            targets.push_back(parent->second);
    if (record->isRemote() && isFirst)
        awaitFirstLook(lock, record);
    else if (isFirst || needsWidening(*record))
        targets.push_back(record);
    lookNow(lock, targets);
    if (isNew && record->watch >= 0)
        lookNow(lock, awaitedBelow(folder));
    // Its listing is older than this subscription: what changed in between and back would not be
    // told. The visit tells ContentsUnknown, and may find it can be watched by now.
    if (!isFirst && record->isPolled())
        suspect(record);
    return handle;
}

/// Waits for the first look at a folder of a remote file system, for a while.
void InotifyFolderWatcher::Impl::awaitFirstLook(std::unique_lock<std::mutex>& lock,
                                                const RecordPtr& record) {
    enqueue(record, Visit::Check, true);
    const auto hasEnded = [&] { return record->settled != 0 || record->subscriptions.empty(); };
    const auto since = record->lane->busySince();
    const auto now = Clock::now();
    // Not where its task could not be had, and not for what hangs already.
    if (record->queued && dispatcher != std::this_thread::get_id() && !record->lane->isHanging &&
        !(since && now - *since >= options.patience))
        looked.wait_until(lock, now + options.patience, hasEnded);
    if (!hasEnded())
        record->isOwed = true;
}

void InotifyFolderWatcher::Impl::end(const std::shared_ptr<Subscription>& subscription) noexcept {
    RecordPtr record;
    std::unique_ptr<const Callback> callback; // both destroyed without the lock
    std::unique_lock lock(mutex);
    record = std::exchange(subscription->record, nullptr);
    if (record == nullptr)
        return;
    std::erase(record->subscriptions, subscription);
    if (record->subscriptions.empty()) {
        count(*record, false);
        record->isLacking = false;
        detach(*record);
        if (record->place)
            record->lane->polls.remove(record->place);
        records.erase(record->folder);
        if (records.empty()) {
            if (!isDispatching)
                mounts.close();
            wake();
        }
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
    for (const auto& [id, lane] : lanes)
        lane->polls.hurry(Clock::now()); // for those that came when there was none
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
    next->mounts = mounts.get();
    try {
        options.startThread([self = shared_from_this(), next] { self->read(*next); });
    } catch (const std::system_error&) {
        return EAGAIN;
    }
    session = std::move(next);
    strays.clear();
    orphans.clear();
    budget.refresh(Clock::now());
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
