#include "quendo/platform/Logging.h"
#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sstream>

namespace quendo::platform {
namespace {

constexpr std::uint32_t lostMask = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

} // namespace

Mounts readMounts() {
    Mounts mounts;
    std::ifstream table(mountTablePath);
    for (std::string line; std::getline(table, line);)
        mounts.insert(line);
    return mounts;
}

Path mountPointOf(const std::string& line) {
    std::istringstream fields(line);
    std::string field, point;
    for (int i = 0; i < 5; ++i)
        fields >> field;
    for (std::size_t at = 0; at < field.size(); ++at) {
        if (field[at] == '\\' && at + 3 < field.size()) {
            point += static_cast<char>(std::stoi(field.substr(at + 1, 3), nullptr, 8));
            at += 3;
        } else {
            point += field[at];
        }
    }
    return Path::fromNative(point);
}

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
                    return;
                }
                over = std::exchange(session, nullptr); // if there is one
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
    std::vector<std::shared_ptr<Record>> suspected;
    std::string notable;
    std::shared_ptr<Session> current;
    std::optional<std::chrono::steady_clock::time_point> until;
    {
        const std::lock_guard lock(mutex);
        suspected.swap(suspects);
        notable.swap(notice);
        current = session;
        if (notNative != 0)
            until = nextRound;
    }
    if (!notable.empty()) {
        QUENDO_LOG(Severity::Notice) << notable;
    }
    for (const auto& record : suspected)
        visit(record, Visit::Suspect);
    suspected.clear();

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
    if (until && std::chrono::steady_clock::now() >= *until)
        round();
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
    std::vector<std::shared_ptr<Record>> closed;
    {
        const std::lock_guard lock(mutex);
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
            if (mayHaveOpened && notNative != 0)
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
    std::vector<std::shared_ptr<Record>> all;
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
    auto mounts = readMounts();
    std::vector<std::string> changed;
    std::ranges::set_symmetric_difference(current.mounts, mounts, std::back_inserter(changed));
    current.mounts = std::move(mounts);
    for (const auto& line : changed)
        visitTree(mountPointOf(line), Visit::Check);
}

void InotifyFolderWatcher::Impl::round() {
    std::vector<std::shared_ptr<Record>> polled;
    {
        const std::lock_guard lock(mutex);
        for (const auto& [folder, record] : records)
            if (record->isCounted)
                polled.push_back(record);
    }
    const auto begin = std::chrono::steady_clock::now();
    for (const auto& record : polled)
        visit(record, Visit::Check);
    const auto end = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex);
    nextRound = end + std::max<std::chrono::steady_clock::duration>(options.pollInterval,
                                                                    10 * (end - begin));
}

/// Visits the record at `folder`, and those below it to find out whether they have gone with it.
void InotifyFolderWatcher::Impl::visitTree(const Path& folder, Visit why) {
    std::vector<std::shared_ptr<Record>> found;
    {
        const std::lock_guard lock(mutex);
        found = recordsFrom(folder);
    }
    for (const auto& record : found)
        visit(record, record->folder == folder ? why : Visit::Check);
}

/// Watches the folder that lies at the record's path now, looks at it if it is polled, and tells
/// what that brings.
void InotifyFolderWatcher::Impl::visit(const std::shared_ptr<Record>& record, Visit why) {
    bool isUnknown = why == Visit::Suspect;
    bool isWatched = false;
    bool wasPolled = false;
    bool wantsEntries = false;
    {
        const std::lock_guard lock(mutex);
        if (record->subscriptions.empty())
            return;
        wasPolled = record->isPolled();
        isUnknown |= arm(record);
        isWatched = record->watch >= 0;
        wantsEntries = record->wantsEntries();
    }
    const bool remote = isRemote(record->native);
    std::optional<FolderListing> listing;
    if (!isWatched || remote)
        listing = FolderListing::take(record->native, wantsEntries);

    std::vector<Delivery> deliveries;
    std::optional<WatchHealth> changedHealth;
    {
        const std::lock_guard lock(mutex);
        if (record->subscriptions.empty())
            return;
        if (listing && !(record->listing && record->listing->isSameFolder(*listing)))
            isUnknown = true;
        if (isUnknown)
            collect(deliveries, *record,
                    {FolderEvent::Kind::ContentsUnknown, record->folder, wasPolled}, Scope::Itself);
        else if (listing)
            listing->compare(
                *record->listing, [&](FolderEvent::Kind kind, const std::string& name) {
                    collect(deliveries, *record, {kind, record->folder.child(name), wasPolled},
                            Scope::Entries);
                });
        record->isRemote = remote;
        if (updateHealth(*record))
            changedHealth = record->health;
        record->listing = std::move(listing);
    }
    tell(deliveries);
    if (changedHealth) {
        try {
            healthChanged(record->folder, *changedHealth);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }
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
        try {
            (*to->callback)(event);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
        const std::lock_guard lock(mutex);
        running = nullptr;
        callbackEnded.notify_all();
    }
}

} // namespace quendo::platform
