#include "quendo/platform/Logging.h"
#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

#include <cstring>
#include <iterator>
#include <poll.h>
#include <system_error>

namespace quendo::platform {
namespace {

constexpr std::uint32_t lostMask = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

} // namespace

void InotifyFolderWatcher::Impl::read(Session& current) {
    nameThisThread("quendo-inotify");
    pollfd files[] = {{current.inotify.get(), POLLIN, 0},
                      {current.stop.get(), POLLIN, 0},
                      {current.mountTable.get(), POLLPRI, 0}};
    for (;;) {
        if (::poll(files, 3, -1) < 0)
            continue; // a signal
        if (files[1].revents != 0)
            break;
        if (files[2].revents != 0) {
            const std::lock_guard lock(inboxMutex);
            current.mountsChanged = true;
            inboxChanged.notify_all();
        }
        if (files[0].revents == 0)
            continue;
        if (options.beforeRead)
            options.beforeRead();
        const std::lock_guard lock(current.readMutex);
        take(current);
    }
    const std::lock_guard lock(inboxMutex);
    current.ended = true;
    inboxChanged.notify_all();
}

/// Moves events from the kernel's queue to the one in memory. With the session's read mutex.
/// @return how many bytes, 0 when there were none
int InotifyFolderWatcher::Impl::take(Session& current) {
    const auto size = ::read(current.inotify.get(), current.buffer.data(), current.buffer.size());
    if (size <= 0)
        return 0;
    const std::lock_guard lock(inboxMutex);
    const auto begin = current.buffer.begin();
    bool fits = current.bytes.size() + static_cast<std::size_t>(size) <= options.queueBound;
    try {
        if (fits)
            current.bytes.insert(current.bytes.end(), begin, begin + size);
    } catch (const std::bad_alloc&) {
        fits = false;
    }
    if (!fits) {
        current.bytes.clear();
        current.overflowed = true;
        for (auto& line : lines)
            line.at = 0;
    }
    inboxChanged.notify_all();
    return static_cast<int>(size);
}

void InotifyFolderWatcher::Impl::dispatch() {
    nameThisThread("quendo-watch");
    std::vector<char> batch;
    std::list<Line> passed;
    bool failed = false;
    for (;;) {
        std::shared_ptr<Session> over;
        {
            const std::lock_guard lock(mutex);
            dispatcher = std::this_thread::get_id();
            const std::lock_guard inboxLock(inboxMutex);
            if (records.empty()) {
                if (session == nullptr && lines.empty() && passed.empty()) {
                    dispatcher = {};
                    isDispatching = false;
                    mounts.close();
                    return;
                }
                over = std::exchange(session, nullptr); // if there is one
                orphans.clear(); // they end with it; a look may still be under way
                mounts.close();
                for (auto& line : lines)
                    line = {std::move(line.reached)};
            }
        }
        if (over != nullptr) {
            // Waits for the reader, so that descriptors do not pile up where the only watch is made
            // and dropped again and again.
            ::eventfd_write(over->stop.get(), 1);
            std::unique_lock lock(inboxMutex);
            inboxChanged.wait(lock, [&] { return over->ended; });
            continue;
        }
        try {
            dispatchOnce(batch, passed, failed);
        } catch (...) {
            // No memory: what was not told is told as lost, as soon as that can be.
            QUENDO_LOG_CAUGHT_EXCEPTION();
            failed = true;
            for (auto& line : passed)
                line.at = 0;
        }
        batch.clear();
        if (batch.capacity() > 1U << 20U)
            batch = {};
    }
}

/// Waits for something to do and does it.
/// @param failed set when the last call failed; reset when that has been made good
/// @param passed the lines of the last call that were not reached, which was set `failed`
void InotifyFolderWatcher::Impl::dispatchOnce(std::vector<char>& batch, std::list<Line>& passed,
                                              bool& failed) {
    std::vector<RecordPtr> suspected;
    std::vector<std::string> notable;
    std::list<Look> looks;
    std::shared_ptr<Session> current;
    {
        const std::lock_guard lock(mutex);
        suspected.swap(suspects);
        notable.swap(notices);
        looks.swap(findings);
        current = session;
    }
    for (const auto& text : notable) {
        QUENDO_LOG(Severity::Notice) << text;
    }
    for (; !looks.empty(); looks.pop_front())
        deliver(looks.front());
    for (const auto& record : suspected)
        visit(record, Visit::Suspect);
    suspected.clear();
    serveLanes();
    std::optional<Clock::time_point> until;
    {
        const std::lock_guard lock(mutex);
        until = nextTime();
    }

    bool overflowed = failed;
    bool mountsChanged = false;
    {
        std::unique_lock lock(inboxMutex);
        const auto hasNews = [&] {
            return woken || !lines.empty() ||
                   (current != nullptr &&
                    (current->overflowed || current->mountsChanged || !current->bytes.empty()));
        };
        if (failed)
            inboxChanged.wait_for(lock, options.pollInterval, hasNews);
        else if (until)
            inboxChanged.wait_until(lock, *until, hasNews);
        else
            inboxChanged.wait(lock, hasNews);
        woken = false;
        if (current != nullptr) {
            overflowed |= std::exchange(current->overflowed, false);
            mountsChanged = std::exchange(current->mountsChanged, false);
            batch.swap(current->bytes);
        }
        // Those of a session that began during the wait stay for the next call.
        while (!lines.empty() &&
               (lines.front().session == nullptr || lines.front().session == current.get()))
            passed.splice(passed.end(), lines, lines.begin());
    }
    if (overflowed)
        lost();
    if (mountsChanged)
        lookAtMounts(*current);
    const inotify_event* last = nullptr;
    for (std::size_t at = 0; at < batch.size();) {
        if (reach(passed, at))
            last = nullptr;
        const auto* event = reinterpret_cast<const inotify_event*>(batch.data() + at);
        at += sizeof(inotify_event) + event->len;
        // One write brings several events. All of them have happened by now, so one call will do.
        constexpr std::uint32_t changes = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;
        if (last == nullptr || last->wd != event->wd || last->len != event->len ||
            (last->mask & changes) == 0 || (event->mask & changes) == 0 ||
            std::memcmp(last->name, event->name, event->len) != 0)
            interpret(*event);
        last = event;
    }
    reach(passed, SIZE_MAX);
    failed = false;
    tellUntold();
}

/// @return whether there was a line
bool InotifyFolderWatcher::Impl::reach(std::list<Line>& passed, std::size_t at) {
    bool any = false;
    for (; !passed.empty() && passed.front().at <= at; any = true) {
        auto reached = std::move(passed.front().reached);
        passed.pop_front();
        try {
            reached();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }
    return any;
}

void InotifyFolderWatcher::Impl::interpret(const inotify_event& event) {
    using Kind = FolderEvent::Kind;
    if ((event.mask & IN_Q_OVERFLOW) != 0)
        return lost();
    Kind kind = Kind::Changed;
    if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0)
        kind = Kind::Appeared;
    else if ((event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0)
        kind = Kind::Vanished;
    const bool isLost = (event.mask & lostMask) != 0;
    const bool isFolder = (event.mask & IN_ISDIR) != 0 && kind != Kind::Changed;
    const bool mayHaveOpened = (event.mask & IN_ATTRIB) != 0 && (event.mask & IN_ISDIR) != 0;
    const std::string_view name(event.name, ::strnlen(event.name, event.len));
    std::vector<Delivery> deliveries;
    std::vector<Path> folders;
    std::vector<RecordPtr> closed;
    {
        const std::lock_guard lock(mutex);
        noteStray(event.wd, isLost);
        const auto found = byWatch.find(event.wd);
        if (found == byWatch.end())
            return;
        for (const auto& record : found->second) {
            if (isLost) {
                folders.push_back(record->folder);
                continue;
            }
            const bool wantsEntries = record->wantsEntries();
            if (!wantsEntries && !isFolder)
                continue;
            const Path path = name.empty() ? record->folder : record->folder.child(name);
            if (wantsEntries)
                collect(deliveries, *record, {kind, path}, Scope::Entries);
            if (isFolder)
                folders.push_back(path);
            if (mayHaveOpened)
                std::ranges::copy_if(recordsFrom(path), std::back_inserter(closed),
                                     [](const auto& each) { return each->isClosed; });
        }
    }
    tell(deliveries);
    for (const auto& folder : folders)
        visitTree(folder, isLost ? Visit::Suspect : Visit::Check);
    for (const auto& record : closed)
        visit(record, Visit::Check);
}

void InotifyFolderWatcher::Impl::lost() {
    std::vector<RecordPtr> all;
    {
        const std::lock_guard lock(mutex);
        for (const auto& [folder, record] : records)
            all.push_back(record);
    }
    QUENDO_LOG(Severity::Notice) << "Events of " << all.size()
                                 << " watched folders were lost; all are looked at. If this comes "
                                    "often, raise fs.inotify.max_queued_events.";
    for (const auto& record : all)
        visit(record, Visit::Suspect);
}

void InotifyFolderWatcher::Impl::lookAtMounts(Session& current) {
    const auto before = std::exchange(current.mounts, mounts.get());
    for (const auto& point : current.mounts->changedSince(*before))
        visitTree(point, Visit::Check);
}

/// Visits the record at `folder`, and those below it to find out whether they have gone with it.
void InotifyFolderWatcher::Impl::visitTree(const Path& folder, Visit why) {
    std::vector<RecordPtr> found;
    {
        const std::lock_guard lock(mutex);
        found = recordsFrom(folder);
    }
    for (const auto& record : found)
        visit(record, record->folder == folder ? why : Visit::Check);
}

/// Watches the folder that lies at the record's path now, looks at it if it is polled, and tells
/// what that brings; in a remote file system later.
void InotifyFolderWatcher::Impl::visit(const RecordPtr& record, Visit why) {
    const auto remote = findRemote(record->native);
    std::unique_lock lock(mutex);
    if (record->subscriptions.empty())
        return;
    setLane(record, laneOf(remote));
    if (remote)
        return enqueue(record, why);
    auto look = beginLook(record, why);
    lock.unlock();
    perform(look);
    lock.lock();
    // While watch() runs, its client has nothing to be told yet.
    const bool isFirst = record->settled == 0 && !record->isOwed;
    settle(look);
    if (isFirst)
        return keepFirst(look);
    lock.unlock();
    deliver(look);
}

/// Tells what a look has found.
void InotifyFolderWatcher::Impl::deliver(Look& look) {
    const auto& record = look.record;
    auto& listing = look.listing;
    std::vector<Delivery> deliveries;
    std::optional<WatchHealth> changedHealth;
    {
        const std::lock_guard lock(mutex);
        if (record->subscriptions.empty())
            return;
        const bool isLate = look.number < record->delivered; // a later one was told before
        const bool isComparable =
            listing && record->listing && record->listing->isSameFolder(*listing);
        const bool isUnknown = std::exchange(record->isOwed, false) || look.why == Visit::Suspect ||
                               (look.isOther && !(look.continues && isComparable)) ||
                               (!isLate && listing && !isComparable);
        if (isUnknown)
            collect(deliveries, *record,
                    {FolderEvent::Kind::ContentsUnknown, record->folder, look.wasPolled},
                    Scope::Itself);
        else if (!isLate && listing)
            listing->compare(
                *record->listing, [&](FolderEvent::Kind kind, const std::string& name) {
                    collect(deliveries, *record, {kind, record->folder.child(name), look.wasPolled},
                            Scope::Entries);
                });
        if (!isLate) {
            record->delivered = look.number;
            if (!record->isPolled())
                record->listing.reset();
            else if (listing)
                record->listing = std::move(listing);
        }
        if (updateHealth(record))
            changedHealth = record->health;
    }
    tell(deliveries);
    if (changedHealth)
        tellHealth(record->folder, *changedHealth);
}

void InotifyFolderWatcher::Impl::collect(std::vector<Delivery>& deliveries, const Record& record,
                                         const FolderEvent& event, Scope least) {
    for (const auto& subscription : record.subscriptions)
        if (least == Scope::Itself || subscription->scope == Scope::Entries)
            deliveries.push_back({subscription, event});
}

void InotifyFolderWatcher::Impl::tell(const std::vector<Delivery>& deliveries) {
    for (const auto& [to, event] : deliveries) {
        {
            const std::lock_guard lock(mutex);
            if (to->record == nullptr)
                continue;
            running = to.get();
        }
        bool isTold = true;
        try {
            (*to->callback)(event);
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
            running = nullptr;
            callbackEnded.notify_all();
        }
        if (!isTold && std::ranges::find(untold, to) == untold.end()) {
            // When this throws, all is told as lost.
            untold.push_back(to);
            tellAgain = Clock::now() + options.pollInterval;
        }
    }
}

/// Tells those whose callbacks failed for want of memory or of a thread.
void InotifyFolderWatcher::Impl::tellUntold() {
    if (untold.empty() || Clock::now() < tellAgain)
        return;
    std::vector<Delivery> deliveries;
    {
        const std::lock_guard lock(mutex);
        for (const auto& to : untold)
            if (to->record != nullptr)
                deliveries.push_back(
                    {to, {FolderEvent::Kind::ContentsUnknown, to->record->folder, true}});
    }
    untold.clear();
    tell(deliveries);
}

void InotifyFolderWatcher::Impl::tellHealth(const Path& folder, const WatchHealth& health) {
    try {
        healthChanged(folder, health);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

} // namespace quendo::platform
