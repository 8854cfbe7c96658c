#include "quendo/platform/standard/InotifyFolderWatcher.h"

#include "quendo/platform/Logging.h"
#include "quendo/platform/standard/FolderListing.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <list>
#include <mutex>
#include <optional>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <utility>

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
namespace {

constexpr std::uint32_t selfMask = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t comingAndGoingMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// IN_CLOSE_WRITE is all that tells of writing through mapped memory.
constexpr std::uint32_t entriesMask =
    selfMask | comingAndGoingMask | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;
constexpr std::uint32_t lostMask = selfMask | IN_IGNORED | IN_UNMOUNT;

constexpr const char* mountTablePath = "/proc/self/mountinfo";

class Descriptor {
public:
    explicit Descriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    ~Descriptor() {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const noexcept { return m_descriptor; }

private:
    const int m_descriptor;
};

/// What the text of every path below `folder` begins with.
UString textOfBelow(const Path& folder) {
    UString text(folder.string());
    if (!text.ends_with(u'/'))
        text += u'/';
    return text;
}

std::string reasonOf(int error) {
    switch (error) {
    case ENOSPC:
        return "the limit of watched folders is reached; raise fs.inotify.max_user_watches";
    case EMFILE:
    case ENFILE:
        return "no inotify instance can be had; raise fs.inotify.max_user_instances or the limit "
               "of open files";
    case ENOMEM:
        return "the system has no memory for watching it; free some";
    case EACCES:
        return "it may not be read; give the permission to read it";
    case ENOENT:
        return "it is not there; it is watched when it comes";
    case ENOTDIR:
        return "it is no folder; a symbolic link has to be resolved first";
    default:
        return "the system refuses to watch it: " + std::generic_category().message(error);
    }
}

using Mounts = std::set<std::string>;

/// The table of mounts, one line each; empty where there is none to be had.
Mounts readMounts() {
    Mounts mounts;
    std::ifstream table(mountTablePath);
    for (std::string line; std::getline(table, line);)
        mounts.insert(line);
    return mounts;
}

/// Where the file system of a line of the table is mounted.
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

constexpr const char* remoteReason =
    "it lies in a file system that others change unseen; their changes are told when it is polled";
constexpr const char* noThreadReason =
    "no thread can be had to watch it; raise the limit of processes (ulimit -u)";

} // namespace

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

// Shared by the watcher, its watches and its threads, so that none of them has to outlive another.
struct InotifyFolderWatcher::Impl : std::enable_shared_from_this<Impl> {
    struct Record;

    struct Subscription {
        const Scope scope;
        std::unique_ptr<const Callback> callback;
        std::shared_ptr<Record> record = nullptr; ///< null before it is in place and after it ended
    };

    struct Record {
        const Path folder;
        const std::string native = folder.toNative();
        std::vector<std::shared_ptr<Subscription>> subscriptions;
        int watch = -1;
        std::uint32_t mask = 0; ///< what `watch` was asked for
        bool isRemote = false;
        std::string reason;     ///< why `watch` is -1
        bool isAwaited = false; ///< there is no folder at its path
        bool isClosed = false;  ///< it may not be read
        WatchHealth health;
        bool isCounted = false;               ///< in `notNative`
        std::optional<FolderListing> listing; ///< of the last round that polled it

        explicit Record(const Path& path) : folder(path) {}

        bool wantsEntries() const noexcept {
            return std::ranges::any_of(subscriptions, [](const auto& subscription) {
                return subscription->scope == Scope::Entries;
            });
        }
        bool isPolled() const noexcept { return watch < 0 || isRemote; }
    };

    /// One life of the descriptor and its reader.
    struct Session {
        const Descriptor inotify{::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
        const Descriptor stop{inotify.get() < 0 ? -1 : ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
        const int error = stop.get() < 0 ? errno : 0;
        const Descriptor mountTable{error != 0 ? -1 : ::open(mountTablePath, O_RDONLY | O_CLOEXEC)};
        Mounts mounts = error != 0 ? Mounts() : readMounts(); ///< as the dispatcher knows them
        std::mutex readMutex;     ///< before the inbox mutex; held while events are moved
        std::vector<char> buffer; ///< under it
        // Under the inbox mutex:
        std::vector<char> bytes; ///< events as the kernel gave them
        bool overflowed = false; ///< some were dropped before `bytes`
        bool mountsChanged = false;
        bool ended = false;
    };

    /// Where the dispatcher is to call somebody.
    struct Line {
        UniqueFunction<void()> reached;
        const Session* session = nullptr; ///< for comparison only; null when that is over
        std::size_t at = 0;               ///< in the bytes of that session
    };

    struct Delivery {
        std::shared_ptr<Subscription> to;
        FolderEvent event;
    };

    class Handle final : public Watch {
    public:
        Handle(std::shared_ptr<Impl> impl, std::shared_ptr<Subscription> subscription) noexcept
            : m_impl(std::move(impl)), m_subscription(std::move(subscription)) {}
        ~Handle() override { m_impl->end(m_subscription); }

    private:
        const std::shared_ptr<Impl> m_impl;
        const std::shared_ptr<Subscription> m_subscription;
    };

    enum class Visit {
        Check,   ///< another folder may be at its path, or it is polled
        Suspect, ///< that is so, or its events were lost: ContentsUnknown in any case
    };

    const InotifyFolderWatcherOptions options;
    boost::signals2::signal<void(const Path&, const WatchHealth&)> healthChanged;

    mutable std::mutex mutex; // before the inbox mutex
    std::condition_variable callbackEnded;
    std::map<Path, std::shared_ptr<Record>> records;
    std::unordered_map<int, std::vector<std::shared_ptr<Record>>> byWatch;
    std::vector<std::shared_ptr<Record>> suspects; ///< to be visited by the dispatcher
    std::size_t notNative = 0;
    std::chrono::steady_clock::time_point nextRound;
    std::shared_ptr<Session> session;
    bool limitReached = false;
    std::string notice; ///< to be logged by the dispatcher, without the lock
    bool isDispatching = false;
    std::thread::id dispatcher;
    const Subscription* running = nullptr;

    std::mutex inboxMutex; // guards what the reader shares, and the wake-up of the dispatcher
    std::condition_variable inboxChanged;
    bool woken = false;
    std::list<Line> lines;

    explicit Impl(InotifyFolderWatcherOptions watcherOptions)
        : options(std::move(watcherOptions)) {}

    // Any thread
    std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback);
    void end(const std::shared_ptr<Subscription>& subscription) noexcept;
    void fence(UniqueFunction<void()> reached);
    int take(Session& current);
    void wake() noexcept;

    // Under the mutex
    bool startDispatcher();
    int startSession();
    bool arm(const std::shared_ptr<Record>& record);
    void widen(const std::shared_ptr<Record>& record);
    void armAwaitedBelow(const Path& folder);
    void detach(Record& record) noexcept;
    std::uint32_t maskOf(const Record& record) const;
    void setHealth(Record& record, WatchHealth health);
    bool updateHealth(Record& record);
    bool isComingTold(const Record& record) const;
    std::vector<std::shared_ptr<Record>> recordsFrom(const Path& folder) const;

    // The reader
    void read(Session& current);

    // The dispatcher
    void dispatch();
    void dispatchOnce(std::vector<char>& batch, std::list<Line>& passed, bool& failed);
    static bool reach(std::list<Line>& passed, std::size_t at);
    void interpret(const inotify_event& event);
    void lost();
    void lookAtMounts(Session& current);
    void round();
    void visit(const std::shared_ptr<Record>& record, Visit why);
    void visitTree(const Path& folder, Visit why);
    static void collect(std::vector<Delivery>& deliveries, const Record& record,
                        const FolderEvent& event, Scope least);
    void tell(const std::vector<Delivery>& deliveries);

    bool isRemote(const std::string& folder) const noexcept {
        struct statfs found {};
        return ::statfs(folder.c_str(), &found) == 0 &&
               std::ranges::count(options.polledFileSystems,
                                  static_cast<std::uint32_t>(found.f_type)) != 0;
    }
};

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

/// Adds the watch by path, for all that is wanted of the folder by now.
/// @return whether that changed anything: the folder is another, or is watched no longer, or at
/// last
bool InotifyFolderWatcher::Impl::arm(const std::shared_ptr<Record>& record) {
    const auto mask = maskOf(*record);
    int number = -1;
    int error = startSession();
    if (error == 0) {
        number =
            ::inotify_add_watch(session->inotify.get(), record->native.c_str(),
                                mask | IN_MASK_ADD | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK);
        error = number < 0 ? errno : 0;
    }
    if (number < 0)
        record->reason = error == EAGAIN ? noThreadReason : reasonOf(error);
    record->isAwaited = error == ENOENT || error == ENOTDIR;
    record->isClosed = error == EACCES;
    if (error == ENOSPC && !std::exchange(limitReached, true))
        notice = "Folders are polled instead of watched, the first of them " +
                 record->folder.toUtf8() + ": " + record->reason;
    if (number == record->watch) {
        record->mask |= mask;
        return false;
    }
    if (number >= 0)
        byWatch[number].push_back(record);
    detach(*record);
    record->watch = number;
    record->mask = mask;
    return true;
}

/// Asks for further events when more is wanted of the folder than before.
void InotifyFolderWatcher::Impl::widen(const std::shared_ptr<Record>& record) {
    if (record->watch < 0 || (maskOf(*record) & ~record->mask) == 0)
        return;
    suspects.reserve(suspects.size() + 1);
    if (arm(record)) {
        suspects.push_back(record);
        wake();
    }
}

/// Watches what came below `folder` before that was watched: its coming is told by nobody.
void InotifyFolderWatcher::Impl::armAwaitedBelow(const Path& folder) {
    for (const auto& record : recordsFrom(folder)) {
        suspects.reserve(suspects.size() + 1);
        if (record->isAwaited && arm(record)) {
            suspects.push_back(record);
            wake();
        }
    }
}

void InotifyFolderWatcher::Impl::detach(Record& record) noexcept {
    if (const auto found = byWatch.find(record.watch); found != byWatch.end()) {
        std::erase_if(found->second, [&](const auto& each) { return each.get() == &record; });
        if (found->second.empty()) {
            byWatch.erase(found);
            // Fails when the kernel removed it before.
            ::inotify_rm_watch(session->inotify.get(), record.watch);
        }
    }
    record.watch = -1;
}

std::uint32_t InotifyFolderWatcher::Impl::maskOf(const Record& record) const {
    if (record.wantsEntries())
        return entriesMask;
    const auto beginning = textOfBelow(record.folder);
    const auto below = records.lower_bound(Path(beginning));
    return below != records.end() && below->first.string().starts_with(beginning)
               ? selfMask | comingAndGoingMask
               : selfMask;
}

void InotifyFolderWatcher::Impl::setHealth(Record& record, WatchHealth health) {
    record.health = std::move(health);
    const bool counts = record.health.means == WatchHealth::Means::NotWatched || record.isPolled();
    if (std::exchange(record.isCounted, counts) == counts)
        return;
    if (!counts) {
        --notNative;
    } else if (notNative++ == 0) {
        nextRound = std::chrono::steady_clock::now() + options.pollInterval;
        wake();
    }
}

/// @return whether it changed
bool InotifyFolderWatcher::Impl::updateHealth(Record& record) {
    using Means = WatchHealth::Means;
    WatchHealth health{Means::Native, {}};
    if (record.isPolled() && !isComingTold(record))
        health = {Means::Polled, record.watch < 0 ? record.reason : remoteReason};
    const bool hasChanged = health != record.health;
    setHealth(record, std::move(health)); // whether it is polled may have changed in any case
    return hasChanged;
}

/// Whether nothing lies at the record's path, and events tell when a folder comes there. It is
/// polled nevertheless, because those watches may end.
bool InotifyFolderWatcher::Impl::isComingTold(const Record& record) const {
    if (!record.isAwaited)
        return false;
    const auto parent = records.find(record.folder.parentPath());
    return parent != records.end() && parent->second.get() != &record &&
           (!parent->second->isPolled() || isComingTold(*parent->second));
}

/// The records at `folder` and below it, parents first.
std::vector<std::shared_ptr<InotifyFolderWatcher::Impl::Record>>
InotifyFolderWatcher::Impl::recordsFrom(const Path& folder) const {
    std::vector<std::shared_ptr<Record>> result;
    if (const auto at = records.find(folder); at != records.end())
        result.push_back(at->second);
    const auto beginning = textOfBelow(folder);
    for (auto at = records.lower_bound(Path(beginning));
         at != records.end() && at->first.string().starts_with(beginning); ++at)
        if (at->first != folder)
            result.push_back(at->second);
    return result;
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
