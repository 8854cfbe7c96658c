#pragma once

#include "quendo/platform/MountTable.h"
#include "quendo/platform/standard/FileSystemWorker.h"
#include "quendo/platform/standard/FolderListing.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "quendo/platform/standard/PollSchedule.h"
#include "quendo/platform/standard/StrandPool.h"
#include "quendo/platform/standard/WatchBudget.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace quendo::platform {

class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) noexcept : m_descriptor(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~Descriptor() {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }

    int get() const noexcept { return m_descriptor; }

private:
    int m_descriptor;
};

/// The mount table as it is now. Asks the kernel whether it has changed and reads it only then.
///
/// Threads: any.
class CurrentMounts {
public:
    CurrentMounts(FileSystemCalls& calls, const std::vector<std::string>& remote)
        : m_calls(calls), m_remote(remote) {}

    std::shared_ptr<const MountTable> get();
    /// Closes the descriptor until the next get().
    void close();

private:
    FileSystemCalls& m_calls;
    const std::vector<std::string>& m_remote;
    std::mutex m_mutex;
    Descriptor m_file;                         // under it
    std::shared_ptr<const MountTable> m_table; // under it
};

constexpr const char* noThreadReason =
    "no thread can be had to watch it; raise the limit of processes (ulimit -u)";

constexpr const char* shareReason =
    "a share of the watched folders that the system allows is left to other programs and working "
    "copies; raise fs.inotify.max_user_watches";

// Shared by the watcher, its watches and its threads, so that none of them has to outlive another.
struct InotifyFolderWatcher::Impl : std::enable_shared_from_this<Impl> {
    using Clock = std::chrono::steady_clock;
    struct Record;
    using RecordPtr = std::shared_ptr<Record>;
    using Polls = PollSchedule<RecordPtr>;

    struct Subscription {
        const Scope scope;
        std::unique_ptr<const Callback> callback;
        RecordPtr record = nullptr; ///< null before it is in place and after it ended
    };

    enum class Visit {
        Check,   ///< another folder may be at its path, or it is polled
        Suspect, ///< that is so, or its events were lost: ContentsUnknown in any case
    };

    /// What looks at the folders of one remote file system; or polls those of all local ones.
    struct Lane final : FileSystemWorker {
        Lane(std::shared_ptr<Executor> strand, std::optional<Mount> mount, Clock::duration interval)
            : FileSystemWorker(std::move(strand)), remote(std::move(mount)), polls(interval) {}

        const std::optional<Mount> remote; ///< nothing for the local ones
        // Under the mutex:
        Polls polls;
        bool isPolling = false;                 ///< a slice waits or runs
        std::optional<Clock::time_point> check; ///< when to see whether it hangs
        bool isHanging = false;
        bool hasAnswered = false; ///< after it was hanging; for the dispatcher
    };

    /// The folders of one working copy: those below a folder that is watched for itself.
    struct Group {
        explicit Group(const Path& folder) : root(folder) {}
        const Path root;
        std::size_t watched = 0;     ///< how many of them have a watch
        std::size_t lacking = 0;     ///< how many want one that there is not
        std::size_t most = SIZE_MAX; ///< may have a watch
    };

    struct Record {
        const Path folder;
        const std::string native = folder.toNative();
        std::vector<std::shared_ptr<Subscription>> subscriptions;
        std::shared_ptr<Lane> lane; ///< set once the record is in place
        std::shared_ptr<Group> group;
        int watch = -1;
        std::uint32_t mask = 0;      ///< what `watch` was asked for
        std::string reason;          ///< why `watch` is -1
        bool isAwaited = false;      ///< there is no folder at its path
        bool isClosed = false;       ///< it may not be read
        bool isLacking = false;      ///< for want of watches
        std::uint64_t begun = 0;     ///< numbers the looks at it
        std::uint64_t settled = 0;   ///< the last look that counted for `watch`; 0: none as yet
        std::uint64_t delivered = 0; ///< the last look that counted for `listing`
        std::optional<Visit> queued; ///< a look waits in the lane
        bool isOwed = false;         ///< the next look that is delivered tells ContentsUnknown
        WatchHealth health;
        Polls::Place place;                   ///< among the polled ones of its lane
        std::optional<FolderListing> listing; ///< of the last look at it while it was polled

        explicit Record(const Path& path) : folder(path) {}

        bool wantsEntries() const noexcept {
            return std::ranges::any_of(subscriptions, [](const auto& subscription) {
                return subscription->scope == Scope::Entries;
            });
        }
        bool isRemote() const noexcept { return lane->remote.has_value(); }
        bool isPolled() const noexcept { return watch < 0 || isRemote(); }
    };

    /// One life of the descriptor and its reader.
    struct Session {
        const Descriptor inotify{::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
        const Descriptor stop{inotify.get() < 0 ? -1 : ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
        const Descriptor mountTable{stop.get() < 0 ? -1
                                                   : ::open(mountTablePath, O_RDONLY | O_CLOEXEC)};
        /// Why there is no session. It does without a mount table where the system has none, but
        /// not for want of a descriptor: it would receive no mount events until its end.
        const int error =
            stop.get() < 0 || (mountTable.get() < 0 && (errno == EMFILE || errno == ENFILE)) ? errno
                                                                                             : 0;
        std::shared_ptr<const MountTable> mounts; ///< as the dispatcher knows them
        std::mutex readMutex;     ///< before the inbox mutex; while events are moved
        std::vector<char> buffer; ///< under it
        // Under the inbox mutex:
        std::vector<char> bytes; ///< events as the kernel gave them
        bool overflowed = false; ///< some were dropped before `bytes`
        bool mountsChanged = false;
        bool ended = false;
    };

    /// Counts one in while it lives.
    class Counted {
    public:
        explicit Counted(std::atomic<int>& count) noexcept : m_count(&count) { ++count; }
        Counted(Counted&& other) noexcept : m_count(std::exchange(other.m_count, nullptr)) {}
        Counted& operator=(Counted&& other) noexcept {
            std::swap(m_count, other.m_count);
            return *this;
        }
        ~Counted() {
            if (m_count != nullptr)
                --*m_count;
        }

    private:
        std::atomic<int>* m_count;
    };

    /// Adding the watch of a folder by its path, and listing it where it is polled: begun and
    /// settled under the mutex, performed without it.
    struct Look {
        RecordPtr record;
        std::shared_ptr<Lane> lane;
        std::shared_ptr<Session> session; ///< null when there is none, for `error`
        Visit why = Visit::Check;
        std::uint64_t number = 0;
        std::uint32_t mask = 0;
        bool wantsEntries = false;
        bool wasPolled = false;
        bool isRefused = false; ///< the budget has no watch for it
        bool continues = false; ///< has a listing from before, to be compared with a last one
        std::uint64_t strayEvents = 0; ///< how many there were when it began
        std::vector<Counted> counted{};
        // What was found:
        int error = 0; ///< why there is no watch
        int watch = -1;
        std::optional<FolderListing> listing{};
        bool isOther = false; ///< the folder is another, or is watched no longer, or at last
    };

    /// The last events of a watch, by their numbers: of all, and of those by which it ended.
    struct Stray {
        std::uint64_t any = 0, lost = 0;
    };

    /// A watch that is to be taken from a record.
    struct Taken {
        RecordPtr record;
        int watch = -1;
        std::optional<FolderListing> listing{}; ///< unless it is polled beside
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

    const InotifyFolderWatcherOptions options;
    CurrentMounts mounts{*options.calls, options.polledFileSystems};
    StrandPool pool;
    boost::signals2::signal<void(const Path&, const WatchHealth&)> healthChanged;

    std::atomic<int> adding = 0, addingLocal = 0; ///< looks that may have got a watch

    // Before the inbox mutex and those of the lanes. No call that may hang is made under it.
    mutable std::mutex mutex;
    std::condition_variable callbackEnded, looked;
    std::map<Path, RecordPtr> records;
    std::unordered_map<int, std::vector<RecordPtr>> byWatch;
    std::map<std::string, std::shared_ptr<Lane>> lanes; ///< by the mount's id; "" for the local one
    std::vector<RecordPtr> suspects;                    ///< to be visited by the dispatcher
    std::list<Look> findings;                           ///< to be delivered by the dispatcher
    std::map<int, Stray> strays; ///< events that came while looks were under way, by watch
    std::vector<int> orphans; ///< watches without a record, to be removed when none is being added
    std::uint64_t strayEvents = 0;  ///< numbers them
    std::uint64_t straysForgot = 0; ///< up to this one, what `strays` held was dropped
    std::shared_ptr<Session> session;
    std::vector<std::weak_ptr<Group>> groups; ///< all, and some that have gone
    WatchBudget budget;
    std::size_t lacking = 0; ///< how many records are
    Clock::time_point nextSharing;
    bool isShared = false;     ///< groups have their shares
    bool isTakingAway = false; ///< watches from those who have more than their share
    bool limitReached = false;
    std::vector<std::string> notices; ///< to be logged by the dispatcher, without the lock
    bool isDispatching = false;
    std::thread::id dispatcher;
    const Subscription* running = nullptr;

    // Of the dispatcher:
    std::vector<std::shared_ptr<Subscription>> untold; ///< their callbacks had no memory or thread
    Clock::time_point tellAgain;

    std::mutex inboxMutex; // guards what the reader shares, and the wake-up of the dispatcher
    std::condition_variable inboxChanged;
    bool woken = false;
    std::list<Line> lines;

    explicit Impl(InotifyFolderWatcherOptions watcherOptions);

    // Any thread
    std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback);
    void end(const std::shared_ptr<Subscription>& subscription) noexcept;
    void fence(UniqueFunction<void()> reached);
    int take(Session& current);
    void wake() noexcept;
    std::optional<Mount> findRemote(const std::string& native);
    void perform(Look& look) const;

    // Under the mutex
    bool startDispatcher();
    int startSession();
    std::shared_ptr<Lane> laneOf(const std::optional<Mount>& remote);
    void setLane(const RecordPtr& record, std::shared_ptr<Lane> lane);
    void setGroup(const RecordPtr& record, Scope scope);
    void moveToGroup(const RecordPtr& record, const std::shared_ptr<Group>& group);
    std::shared_ptr<Group> makeGroup(const Path& root);
    bool mayAdd(const Record& record) const;
    void count(const Record& record, bool in) noexcept;
    std::vector<RecordPtr> shareWatches(Clock::time_point now);
    Look beginLook(const RecordPtr& record, Visit why);
    void settle(Look& look);
    void noteStray(int watch, bool isLost);
    bool hasMissed(const Look& look) const;
    void keepFirst(Look& look);
    void lookNow(std::unique_lock<std::mutex>& lock, const std::vector<RecordPtr>& targets);
    void awaitFirstLook(std::unique_lock<std::mutex>& lock, const RecordPtr& record);
    void enqueue(const RecordPtr& record, Visit why, bool isUrgent = false);
    void suspect(const RecordPtr& record);
    bool needsWidening(const Record& record) const;
    std::vector<RecordPtr> awaitedBelow(const Path& folder) const;
    void detach(Record& record) noexcept;
    void removeWatch(int watch, Lane& lane) noexcept;
    std::uint32_t maskOf(const Record& record) const;
    void setHealth(const RecordPtr& record, WatchHealth health);
    bool updateHealth(const RecordPtr& record);
    bool isComingTold(const Record& record) const;
    std::vector<RecordPtr> recordsFrom(const Path& folder) const;
    std::vector<RecordPtr> recordsOf(const Lane& lane) const;
    std::optional<Clock::time_point> nextTime() const;

    // The reader
    void read(Session& current);

    // Lanes
    void lookInLane(const RecordPtr& record, const std::shared_ptr<Lane>& lane);
    void pollSlice(const std::shared_ptr<Lane>& lane);
    void hasProgressed(Lane& lane);
    void listTaken(const std::vector<RecordPtr>& from);

    // The dispatcher
    void dispatch();
    void dispatchOnce(std::vector<char>& batch, std::list<Line>& passed, bool& failed);
    static bool reach(std::list<Line>& passed, std::size_t at);
    void interpret(const inotify_event& event);
    void lost();
    void lookAtMounts(Session& current);
    void serveLanes();
    void takeWatches(std::vector<Taken>& all);
    void visit(const RecordPtr& record, Visit why);
    void visitTree(const Path& folder, Visit why);
    void deliver(Look& look);
    static void collect(std::vector<Delivery>& deliveries, const Record& record,
                        const FolderEvent& event, Scope least);
    void tell(const std::vector<Delivery>& deliveries);
    void tellUntold();
    void tellHealth(const Path& folder, const WatchHealth& health);
};

} // namespace quendo::platform
