#pragma once

#include "quendo/platform/standard/FolderListing.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace quendo::platform {

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

/// The table of mounts, one line each; empty where there is none to be had.
using Mounts = std::set<std::string>;
Mounts readMounts();

/// Where the file system of a line of the table is mounted.
Path mountPointOf(const std::string& line);

constexpr const char* mountTablePath = "/proc/self/mountinfo";
constexpr const char* noThreadReason =
    "no thread can be had to watch it; raise the limit of processes (ulimit -u)";

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

} // namespace quendo::platform
