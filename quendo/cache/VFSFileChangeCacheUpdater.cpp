#include "quendo/cache/VFSFileChangeCacheUpdater.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/DependencyWatches.h"
#include "quendo/cache/EventInbox.h"
#include "quendo/cache/EventLog.h"
#include "quendo/cache/NoOpTask.h"
#include "quendo/cache/PendingEvents.h"
#include "quendo/cache/RefreshReason.h"
#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/EventMgr.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/InstallationService.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/ReentrantReadWriteLock.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>
#include <utility>
#include <vector>

// How the cache follows the disk.
//
// What is watched. Every folder that directly holds cached paths, and the root; folders above the
// root are not. The set is worked out anew when the cache has changed: from the list of everything
// cached, or, where the cache tells about its folders (CMStatusCacheFolders), only when the set of
// these has changed, so that the change of a file costs nothing here.
//
// Bare folders. A folder in which nothing is cached (it is empty, or holds empty folders only) may
// get its first file at any time. Such folders are found when the folder around them is listed, and
// when they appear, and are watched as well until something in them is cached. Not below what the
// cache holds as one entry, because it is ignored as a whole or another working copy, and not the
// metadata. Before the first query has ended every folder would be bare, and what happens in there
// meanwhile is no news: so until then only the root is watched.
//
// Refused folders. A folder that the event service refuses stays wanted, and every later change of
// the cache tries it again.
//
// Suspensions. Events that arrive while detection is disabled are dropped, those of new folders
// too. The first change of the cache after a suspension lists the watched folders for folders that
// came meanwhile and watches these; what else changed before the end of the suspension is left to
// the caller's refresh. The watches of bare folders that went meanwhile are dropped when the
// suspension ends.
//
// Without the folder status flag the cache holds tracked entries only. Then no bare folder is
// watched or listed: the first file of such a folder is not tracked. When the flag is set, the next
// change of the cache lists the watched folders, as after a suspension.
//
// The gap. What changed after the adapter had looked and before the watch stood would be missed. So
// a folder is listed after its watch stands, and what changed since the query that put it into the
// cache is asked for: by the time stamp of the last change (ctime), less a margin. What went has no
// time stamp; but the folder has, and then what is cached there is held against what it holds.
//
// Polled folders. What came after one round and went before the next is told by neither, but a
// query in between may have found it. So when the answer for what did come or go in such a folder
// is there, and with it those of all queries before it, the same is done. Where nothing else came
// or went, the watcher says that the contents are unknown.
//
// What an event brings. The handler, on the delivery thread, adds the event to the inbox
// (EventInbox), which holds one entry for each path and has one task posted to a strand while it
// holds any. The task takes all entries, follows new and deleted folders, and moves what needs a
// query to m_waiting. release() turns what waits into requests: for the path, or, for a metadata
// file, for its folder. If the events of a folder were lost, or its tree was moved, all of it is
// refreshed.
//
// Pacing. What is requested here waits in the cache for a turn (BackgroundTurns). What has been
// requested and has not started is not requested again, so one turn serves all that came before it.
// Events that arrive while such a query runs cost no further requests either: release() keeps them
// until it has ended. So memory depends on the number of paths and not on the number of events.
//
//     handler --> inbox --> strand: takeArrived() --> m_waiting --> release() --> cache
//                                                         ^            |
//                                          end of a query ------------+
//
// No query. The content of an untracked or ignored file does not change its state, and what happens
// in a tree that is cached as one ignored entry changes nothing. Such events are dropped, unless a
// query is running that may have looked at the rules or at the index before the event: its answer
// may make the content matter. A query that starts later sees the change itself. For the same
// reason the event of a change is dropped when the path has been answered by a query that started
// after the event.
//
// What else an answer may change. Where entries come or go, entries of folders may as well: a
// folder that holds nothing under control is reported or not by what else it holds, and one that
// comes back has no entry until it is asked for. And a file in an ignored tree is answered when it
// is asked for, though the tree is one entry. So when a path has been answered, the outermost such
// folder around it, or the ignored one, is asked for too.
//
// What the user's own operation changes is answered with no event, and for its files only. So after
// every update the folders around what came under control or left it are asked for, each alone,
// where what the cache holds of them does not fit what it holds below them. Only a change leads to
// such a question, and only to one further up: an answer that still does not fit ends it. And a
// file below which something is cached, as it takes a folder's place, is asked for with that.
//
// Nested working copies. A folder that the adapter answers with one entry, because it is another
// working copy, is left to DependencyWatches, where the adapter offers StateDependencies. What lies
// in it is neither watched nor queried here: the adapter answers External for a file there, and a
// query of the folder lists no such entry. When there is one all the same, a refresh of the nested
// folder removes it. An event in a submodule that has no working copy brings a query of the
// submodule, and not of the path, for the same reason. Where a folder gains or loses a forbidden
// name (".git"), it may have become
// a nested working copy or ceased to be one: it is refreshed, and named to DependencyWatches,
// because the new metadata may be incomplete yet. In the root, everything is refreshed.
//
// Bursts. Requests for folders join one that waits already (CMStatusCacheFreshness), but two that
// lie beside each other are two queries, and a query of much costs little more than one of a
// little. So folders are collected as long as the strand has tasks, and of more than a few the
// folder around them all is asked for.
//
// Threads. The set of watches is guarded by the lock, which is held while watches are made and
// dropped. Dropping one waits for its handler; so handlers take no lock but the inbox's. Tasks hold
// the Impl only for the time of one task. When no thread can be had for the strand, the inbox keeps
// the events and tries again; work that follows an answer and finds no thread counts as a loss of
// everything: the root goes to the inbox as unknown.

namespace quendo {
namespace {

using platform::StorageEventKind;
using platform::WithRecursiveChangeEvents;
using Clock = std::chrono::system_clock;

// Time stamps of files come from a clock that steps with the kernel's tick, 10 ms at most.
constexpr std::chrono::milliseconds tick{10};
constexpr std::chrono::milliseconds margin{100};

constexpr std::size_t mostFoldersAtOnce = 4;

// After so much time refreshes under way are looked up, in case their end was not told.
constexpr std::chrono::milliseconds silence{1000};
// Of so many answers it is remembered what they may lead to, when their end was not told.
constexpr std::size_t mostUntold = 64;
constexpr std::chrono::milliseconds retryInterval{250};

struct Subscription {
    std::unique_ptr<platform::EventSubscription> handle;
};
using Watches = std::map<Path, Subscription>;

struct DirectoryEntry {
    Path path;
    bool isFolder;
    Clock::time_point changed;
};

struct Listing {
    std::vector<DirectoryEntry> entries;
    Clock::time_point changed = Clock::time_point::max(); ///< the folder; max when it is unreadable
};

Clock::time_point changeTime(const struct stat& status) {
    const auto changed = std::chrono::seconds(status.st_ctim.tv_sec) +
                         std::chrono::nanoseconds(status.st_ctim.tv_nsec);
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(changed));
}

/// What lies directly in `folder`; nothing when that cannot be read.
Listing list(const Path& folder) {
    Listing listing;
    const int descriptor = ::open(folder.toNative().c_str(),
                                  O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (descriptor < 0)
        return listing;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::fdopendir(descriptor), ::closedir);
    if (directory == nullptr) {
        ::close(descriptor);
        return listing;
    }
    struct stat status;
    if (::fstat(descriptor, &status) == 0)
        listing.changed = changeTime(status);
    while (const auto* entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == ".." ||
            ::fstatat(descriptor, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        listing.entries.push_back(
            {folder.child(name), S_ISDIR(status.st_mode), changeTime(status)});
    }
    return listing;
}

/// `slot`, whose failures are not those of the refresh that it is told of.
template <class Slot>
auto logging(Slot slot) {
    return [slot = std::move(slot)](const auto&... arguments) {
        try {
            slot(arguments...);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    };
}

struct CacheUpdateInfo {
    Path root;
    std::set<UString> metadataFileNames;
    std::shared_ptr<CMStatusCache> cache;
    std::atomic<bool> enabled{true};
    std::atomic<bool> leavesNested{false};     ///< what is nested, to DependencyWatches
    std::atomic<bool> hasMissedFolders{false}; ///< new folders may have no watch: see Suspensions
    std::atomic<Clock::time_point> enabledAt{Clock::time_point::min() +
                                             tick}; ///< by the last guard

    // Interfaces of the cache, where it has them.
    CMStatusCacheFolders* folders = nullptr;
    CMStatusCacheFreshness* freshness = nullptr;
    std::vector<UString> forbiddenNames;

    bool isForbidden(const Path& path) const {
        return std::ranges::find(forbiddenNames, path.fileName().string()) != forbiddenNames.end();
    }

    std::shared_ptr<CacheTask> refreshFolder(const Path& folder) const {
        return freshness != nullptr ? freshness->requireFreshFolder(folder)
                                    : cache->refreshFolder(folder);
    }

    bool isMetadata(const Path& path) const {
        return metadataFileNames.contains(UString(path.fileName().string()));
    }

    /// Whether the event can change what the cache will hold once the queries that run have ended;
    /// see "No query" above. Reads the progress of queries before the states that they change.
    bool needsQuery(const Path& path, const PendingEvents::Event& event) const {
        constexpr unsigned ofEntry =
            PendingEvents::Created | PendingEvents::Changed | PendingEvents::Deleted;
        if (folders == nullptr || freshness == nullptr || (event.kinds & ~ofEntry) != 0 ||
            path == root || isForbidden(path) || isMetadata(path))
            return true;
        const auto fresh = freshness->getFreshness(path);
        if (event.kinds == PendingEvents::Changed && fresh.answeredAt &&
            *fresh.answeredAt > event.last && !holdsBelow(path))
            return false;
        if (fresh.refresh == Freshness::Refresh::Running)
            return true;
        const auto state = cache->getCachedStatus(path);
        if (state) {
            const bool isIgnored = state->getState() == LocalStatus::Ignored;
            return event.kinds != PendingEvents::Changed ||
                   !(state->isFolder()
                         ? isIgnored && isOneEntry(path)
                         : isIgnored || state->getState() == LocalStatus::NotUnderSourceControl);
        }
        const auto around = ignoredAround(path);
        return around.empty() ||
               freshness->getFreshness(around).refresh == Freshness::Refresh::Running ||
               !isOneEntry(around);
    }

    bool holdsBelow(const Path& path) const {
        return folders != nullptr && folders->getFolderSummary(path).below.total() != 0;
    }

    bool hasTracked(const Path& folder) const {
        const auto below = folders->getFolderSummary(folder).below;
        return below.total() !=
               below[LocalStatus::NotUnderSourceControl] + below[LocalStatus::Ignored];
    }

    /// Whether the entry of `folder` cannot be right by what is cached below it: something tracked
    /// in an untracked folder, nothing tracked in a tracked one.
    bool isMisfit(const Path& folder, LocalStatus status) const {
        // What is removed makes no folder a tracked one.
        const auto below = folders->getFolderSummary(folder).below;
        const auto tracked = below[LocalStatus::Unmodified] + below[LocalStatus::Modified] +
                             below[LocalStatus::Missing] + below[LocalStatus::Added] +
                             below[LocalStatus::Conflicted];
        switch (status) {
        case LocalStatus::NotUnderSourceControl:
        case LocalStatus::Ignored:
            return tracked != 0;
        case LocalStatus::Unmodified:
            return tracked + below[LocalStatus::External] + below[LocalStatus::Unknown] == 0;
        default:
            return false;
        }
    }

    struct Misfits {
        std::vector<Path> alone; ///< to be asked for with nothing below them
        std::vector<Path> whole; ///< files that hold something
    };

    /// The misfits among what came under control or left it, and the folders above it but for the
    /// root.
    Misfits misfitsAround(const StatusChanges& changed) const {
        const auto added = std::ranges::count_if(
            changed.changes, [](const auto& change) { return change.after && !change.before; });
        if (static_cast<std::size_t>(added) >= folders->getFolderSummary(root).below.total())
            return {}; // all that is cached is of one answer
        enum class Kind { None, Tracked, Other };
        const auto kindOf = [](const std::optional<FileState>& state) {
            if (!state)
                return Kind::None;
            switch (state->getState()) {
            case LocalStatus::NotUnderSourceControl:
            case LocalStatus::Ignored:
            case LocalStatus::Deleted:
                return Kind::Other;
            default:
                return Kind::Tracked;
            }
        };
        const auto parentOf = [](std::u16string_view text) {
            const auto last = text.rfind(u'/');
            return last == text.npos ? std::u16string_view() : text.substr(0, last);
        };
        Misfits misfits;
        std::unordered_set<std::u16string_view> seen;
        for (const auto& change : changed.changes) {
            if (kindOf(change.before) == kindOf(change.after))
                continue;
            if (change.after && !change.after->isFolder() && holdsBelow(change.path))
                misfits.whole.push_back(change.path);
            for (auto text = parentOf(change.path.string());
                 text.size() > root.string().size() && seen.insert(text).second;
                 text = parentOf(text)) {
                const Path folder(text);
                const auto state = cache->getCachedStatus(folder);
                if (!state || !folder.isBelow(root))
                    continue;
                if (state->isFolder() && isMisfit(folder, state->getState()))
                    misfits.alone.push_back(folder);
                else if (!state->isFolder() && holdsBelow(folder))
                    misfits.whole.push_back(folder);
            }
        }
        return misfits;
    }

    /// Whether something cached directly in `folder` has to be on disk and may not be among
    /// `entries`.
    bool missesAny(const Path& folder, const std::vector<DirectoryEntry>& entries) const {
        const auto direct = folders->getFolderSummary(folder).direct;
        const auto isOnDisk = [](LocalStatus status) {
            return status != LocalStatus::Missing && status != LocalStatus::Deleted;
        };
        auto expected =
            direct.total() - direct[LocalStatus::Missing] - direct[LocalStatus::Deleted];
        for (auto entry = entries.begin(); expected != 0 && entry != entries.end(); ++entry) {
            const auto state = cache->getCachedStatus(entry->path);
            expected -= state && isOnDisk(state->getState()) ? 1 : 0;
        }
        return expected != 0 || folders->getFolderSummary(folder).direct != direct;
    }

    /// Whether `path` is one entry for all that lies in it: another working copy, or ignored as a
    /// whole. A folder in which all is ignored, each by itself, has entries.
    bool isOneEntry(const Path& path) const {
        const auto state = cache->getCachedStatus(path);
        return state && (isNested(*state) || state->getState() == LocalStatus::External ||
                         (state->getState() == LocalStatus::Ignored && !holdsBelow(path)));
    }

    /// Whether `path` is such an entry or lies in one.
    bool isInOneEntry(const Path& path) const {
        const auto around = ignoredAround(path);
        return isOneEntry(path) || (!around.empty() && isOneEntry(around)) || isInNested(path);
    }

    /// Whether an entry stands for a nested working copy: that is the only folder that can be
    /// modified, added or refused.
    bool isNested(const FileState& state) const {
        if (!leavesNested || !state.isFolder())
            return false;
        switch (state.getState()) {
        case LocalStatus::NotUnderSourceControl:
        case LocalStatus::Unmodified:
        case LocalStatus::Ignored:
            return false;
        case LocalStatus::Unknown:
            return state.findProperty(property::refused) != nullptr;
        default:
            return true;
        }
    }

    bool isInNested(const Path& path) const {
        if (!leavesNested)
            return false;
        for (Path folder = path.parentPath(); folder.isBelow(root); folder = folder.parentPath()) {
            const auto state = cache->getCachedStatus(folder);
            if (state && isNested(*state))
                return true;
        }
        return false;
    }

    /// The innermost folder around `path` that is a submodule without its working copy: the only
    /// folder that is unmodified though nothing of its own is cached below it. Empty when there is
    /// none.
    Path emptySubmoduleAround(const Path& path) const {
        if (!leavesNested)
            return {};
        for (Path folder = path.parentPath(); folder.isBelow(root); folder = folder.parentPath()) {
            const auto state = cache->getCachedStatus(folder);
            if (!state || !state->isFolder() || state->getState() != LocalStatus::Unmodified)
                continue;
            const auto below = folders->getFolderSummary(folder).below;
            if (below.total() == below[LocalStatus::External])
                return folder;
        }
        return {};
    }

    bool hasForbidden(const Path& folder) const {
        struct stat status;
        return std::ranges::any_of(forbiddenNames, [&](const UString& name) {
            return ::lstat((folder / name).toNative().c_str(), &status) == 0;
        });
    }

    /// The nested working copy in which `path`, which was answered as External, lies: the outermost
    /// folder around it that holds a forbidden name, or that holds External paths only, because its
    /// metadata are not there. Empty when there is none.
    /// @param cameAlone the adapter answered `path` without its folder: it may lie in a submodule
    ///                  without metadata although it has metadata of its own
    Path nestedAround(const Path& path, bool cameAlone) const {
        Path result;
        for (Path folder = path.parentPath(); folder.isBelow(root); folder = folder.parentPath())
            if (hasForbidden(folder))
                result = folder;
        if (!result.empty() || (!cameAlone && hasForbidden(path)))
            return result;
        for (Path folder = path.parentPath(); folder.isBelow(root); folder = folder.parentPath()) {
            const auto below = folders->getFolderSummary(folder).below;
            if (below.total() != below[LocalStatus::External])
                break;
            result = folder;
        }
        return result;
    }

    /// The innermost folder around `path` that the cache holds as ignored, or empty.
    Path ignoredAround(const Path& path) const {
        for (Path folder = path.parentPath(); folder.isBelow(root); folder = folder.parentPath()) {
            const auto state = cache->getCachedStatus(folder);
            if (state && state->getState() == LocalStatus::Ignored)
                return folder;
        }
        return {};
    }

    /// What else has to be asked for when entries at or below `path` came or went: the outermost
    /// folder around it that has nothing tracked below it, or no entry though the adapter reports
    /// folders; `path` itself when something was cached below it; empty when there is neither.
    Path outermostUnsure(const Path& path) const {
        const bool reportsFolders = cache->getCachedStatus(root).has_value();
        Path result;
        if (holdsBelow(path))
            result = path;
        for (Path folder = path.parentPath();
             folder.isBelow(root) &&
             (!hasTracked(folder) || (reportsFolders && !cache->getCachedStatus(folder)));
             folder = folder.parentPath())
            result = folder;
        return result;
    }
};

} // namespace

class VFSFileChangeCacheUpdater::Impl
    : public std::enable_shared_from_this<VFSFileChangeCacheUpdater::Impl> {
public:
    Impl(std::shared_ptr<CMStatusCache> cache, const CMAdapter& adapter)
        : m_info(std::make_shared<CacheUpdateInfo>()), m_waiting(adapter.getRootFolder()) {
        for (auto& name : adapter.getMetadataFiles())
            m_info->metadataFileNames.insert(std::move(name));
        m_info->root = adapter.getRootFolder();
        m_info->forbiddenNames = adapter.getForbiddenFileNames();
        m_info->folders = dynamic_cast<CMStatusCacheFolders*>(cache.get());
        m_info->freshness = dynamic_cast<CMStatusCacheFreshness*>(cache.get());
        m_info->cache = std::move(cache);
        m_executor = createStrandExecutor("CMFileSystemResponse");
    }

    // Connections and watches go first, in the reverse order of the members.

    void start() {
        const auto hold = m_lock.write();
        const auto weak = weak_from_this();
        m_inbox = std::make_shared<EventInbox>(m_info->root, m_executor, m_services, [weak] {
            if (const auto self = weak.lock())
                self->takeArrived();
        });
        if (isInstallation()) {
            QUENDO_LOG(Severity::Notice)
                << "File watch not being enabled for folder because it is KESTRO root";
            return;
        }
        if (m_info->folders != nullptr) {
            if (m_info->freshness != nullptr)
                m_info->freshness->setPendingChanges([weak](const std::optional<Path>& path) {
                    const auto self = weak.lock();
                    return self != nullptr ? self->outdatedSince(path) : std::nullopt;
                });
            m_isTold = m_info->freshness != nullptr;
            m_startedConnection = m_info->cache->connectTasksStarted(
                logging([weak](const CMStatusCache::Tasks& tasks) {
                    if (const auto self = weak.lock())
                        self->noteStarted(tasks);
                }));
            m_finishedConnection = m_info->cache->connectTasksFinished(
                logging([weak](const CMStatusCache::Tasks& tasks) {
                    if (const auto self = weak.lock())
                        self->lookAtAnswered(tasks);
                }));
            if (auto* changes = dynamic_cast<CMStatusCacheChanges*>(m_info->cache.get()))
                m_changesConnection =
                    changes->connectChanges(logging([weak](const StatusChanges& changed) {
                        if (const auto self = weak.lock())
                            self->lookAtChanges(changed);
                    }));
        }
        m_cacheConnection = m_info->cache->connectCacheChanged(logging([weak] {
            if (const auto self = weak.lock())
                self->refresh();
        }));
        refresh();
    }

    void stop() {
        const auto hold = m_lock.write();
        m_stopped = true;
        std::vector<Path> watched;
        for (const auto& [folder, subscription] : m_watches)
            watched.push_back(folder);
        for (const auto& folder : watched)
            remove(folder);
        m_bareWatches.clear();
        if (m_dependencies != nullptr)
            m_dependencies->stop();
        m_changesConnection.disconnect();
        m_startedConnection.disconnect();
        m_finishedConnection.disconnect();
    }

    void follow(std::shared_ptr<StateDependencies> dependencies) {
        const auto hold = m_lock.write();
        if (m_stopped || m_info->folders == nullptr || m_dependencies != nullptr)
            return;
        const auto weak = weak_from_this();
        DependencyWatches::Callbacks callbacks;
        callbacks.nested = [weak] {
            const auto self = weak.lock();
            return self ? self->nestedCandidates() : std::vector<Path>();
        };
        callbacks.answeredAt = [weak](const Path& path) {
            const auto self = weak.lock();
            return self ? self->queriedAt(path) : std::nullopt;
        };
        callbacks.changed = [weak](const std::vector<Path>& paths) {
            if (const auto self = weak.lock())
                for (const auto& path : paths)
                    self->m_inbox->add(path, PendingEvents::Dependency);
        };
        m_dependencies =
            std::make_shared<DependencyWatches>(std::move(dependencies), std::move(callbacks));
        m_info->leavesNested = true;
    }

    scope_guard disable() {
        m_info->enabled.exchange(false);
        return scope_guard([weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->m_info->enabledAt = Clock::now();
                self->m_info->hasMissedFolders = true;
                self->m_info->enabled.exchange(true);
                self->dropGoneFoldersLater();
            }
        });
    }

    std::exception_ptr rootRefusal() const {
        const auto hold = m_lock.read();
        return m_rootRefusal;
    }

    std::optional<PendingEvents::Clock::time_point>
    outdatedSince(const std::optional<Path>& path) const {
        const auto in = [&](const PendingEvents& events) {
            return path ? events.since(*path, m_info->metadataFileNames) : events.oldest();
        };
        const auto arrived = in(m_inbox->pending()), waiting = in(m_waiting);
        return arrived && waiting ? std::min(arrived, waiting) : arrived ? arrived : waiting;
    }

    std::optional<PendingEvents::Clock::time_point> waitsForThreadSince() const {
        return m_inbox->waitsForThreadSince();
    }

    std::string describe() const {
        std::vector<Path> watched;
        std::size_t bare = 0, refused = 0;
        {
            const auto hold = m_lock.read();
            bare = m_bareWatches.size();
            refused = m_refused.size() + m_refusedBare.size();
            for (const auto* watches : {&m_watches, &m_bareWatches})
                for (const auto& [folder, subscription] : *watches)
                    watched.push_back(folder);
        }
        std::size_t polled = 0;
        for (const auto& folder : watched)
            polled += m_services->folderWatcher->getHealth(folder).means !=
                              platform::WatchHealth::Means::Native
                          ? 1
                          : 0;
        std::ostringstream out;
        out << "watches: " << watched.size() - polled << " native, " << polled << " polled, "
            << refused << " refused; of uncached folders: " << bare << '\n';
        out << "change detection: " << (m_info->enabled ? "enabled" : "disabled") << '\n';
        out << "pending paths: " << m_inbox->pending().size() << " arrived, " << m_waiting.size()
            << " waiting for a query";
        if (waitsForThreadSince())
            out << "; no thread can be had";
        out << '\n';
        {
            const std::lock_guard lock(m_askedMutex);
            const auto isStarted = [](const auto& each) { return each.isStarted; };
            out << "refreshes under way: " << m_asked.size() + m_askedBeside.size() << ", of which "
                << std::ranges::count_if(m_asked, isStarted) +
                       std::ranges::count_if(m_askedBeside, isStarted)
                << " have started\n";
        }
        out << "last events:\n";
        m_log->print(out);
        return out.str();
    }

    /// Makes the watched folders those that are wanted now.
    void refresh() {
        const auto hold = m_lock.write();
        if (m_stopped)
            return;
        if (m_info->folders != nullptr) {
            if (!m_info->cache->getFolderStatusFlag() && !m_bareWatches.empty()) {
                m_bareWatches.clear();
                m_info->hasMissedFolders = true;
            }
            if (m_info->enabled && m_info->cache->getFolderStatusFlag() &&
                m_info->hasMissedFolders.exchange(false))
                watchMissedFoldersLater(m_info->root);
            const auto version = m_info->folders->getFolderSetVersion();
            if (version == m_folderSetVersion) {
                retryRefused();
                return;
            }
            m_folderSetVersion = version; // asked before the folders: at worst it is done again
        }
        const auto wanted = m_info->folders != nullptr ? foldersOfInterface() : foldersOfFiles();
        std::set<Path> old;
        for (const auto& [folder, subscription] : m_watches)
            old.insert(old.end(), folder);
        std::vector<Path> dropped, added;
        std::ranges::set_difference(old, wanted, std::back_inserter(dropped));
        std::ranges::set_difference(wanted, old, std::back_inserter(added));
        for (const auto& folder : dropped)
            remove(folder);
        add(added);
        if (m_info->folders == nullptr)
            return;
        lookIntoLater({}, takeRefusedBare());
        std::erase_if(m_bareWatches,
                      [&](const auto& watch) { return m_info->isInOneEntry(watch.first); });
        if (old.empty() && wanted.size() == 1 && !answeredAt(m_info->root))
            m_isUnasked = true;
        else
            lookIntoLater(std::move(added), std::move(dropped));
    }

private:
    bool isInstallation() const {
        const auto installation = m_services->installation->getRootFolder();
        return installation &&
               (m_services->files->equivalent(m_info->root, *installation) ||
                m_services->files->equivalent(m_info->root, installation->parentPath()));
    }

    std::set<Path> foldersOfFiles() const {
        const auto& files = m_services->files;
        std::set<Path> wanted;
        bool first = true;
        for (const auto& path : m_info->cache->getCachedFiles()) {
            const auto parent = path.parentPath();
            if (std::exchange(first, false) || !files->isAncestor(parent, m_info->root))
                wanted.insert(parent);
        }
        wanted.insert(m_info->root);
        return wanted;
    }

    /// The same, from the folders. The list of files has the root first only when it is alone.
    std::set<Path> foldersOfInterface() const {
        const auto& files = m_services->files;
        const auto folders = m_info->folders->getFolders();
        std::set<Path> wanted(folders.begin(), folders.end());
        if (wanted.size() > 1)
            std::erase_if(wanted, [&](const Path& folder) {
                return files->isAncestor(folder, m_info->root);
            });
        wanted.insert(m_info->root);
        return wanted;
    }

    void add(const std::vector<Path>& folders) {
        m_refused.clear();
        for (const auto& folder : folders) {
            try {
                add(folder, WithRecursiveChangeEvents::NonRecursive, m_watches);
                m_bareWatches.erase(folder);
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
                m_refused.push_back(folder);
                noteRefusal(folder);
            }
        }
    }

    /// With the lock held, and the wanted folders unchanged: of these only the refused ones have no
    /// watch.
    void retryRefused() {
        if (m_refused.empty() && m_refusedBare.empty())
            return;
        auto folders = m_refused;
        add(folders);
        std::erase_if(folders, [&](const Path& folder) { return !m_watches.contains(folder); });
        lookIntoLater(std::move(folders), takeRefusedBare());
    }

    std::vector<Path> takeRefusedBare() {
        const auto folders = std::exchange(m_refusedBare, {});
        return {folders.begin(), folders.end()};
    }

    /// In a handler of an exception.
    void noteRefusal(const Path& folder) {
        if (folder != m_info->root)
            return;
        try {
            throw;
        } catch (const platform::ChangeEventsSubscriptionException&) {
            m_rootRefusal = std::current_exception();
        } catch (...) {
        }
    }

    void add(const Path& folder, WithRecursiveChangeEvents recursive, Watches& watches) {
        QUENDO_LOG(Severity::Detail) << " folder.string()=" << folder;
        const std::vector<StorageEventKind> kinds{
            StorageEventKind::Created, StorageEventKind::Changed, StorageEventKind::Deleted};
        const platform::FileOrFolder location = platform::Folder(folder);
        m_services->fileSystem->publishEventsFor(location, kinds, recursive);
        auto handler = respondToFileChanges();
        const auto types =
            platform::createEventTypes(kinds, platform::getLocation(location).toString());
        Subscription subscription{m_services->events->subscribe(std::move(handler), types,
                                                                {"VFSFileChangeCacheUpdater"})};
        watches.insert_or_assign(folder, std::move(subscription));
    }

    void remove(const Path& folder) {
        const auto found = m_watches.find(folder);
        auto subscription = std::move(found->second);
        m_watches.erase(found);
        m_services->events->unsubscribe(platform::Folder(folder), std::move(subscription.handle));
        QUENDO_LOG(Severity::Detail) << " folder.string()=" << folder;
    }

    platform::EventMgr::Handler respondToFileChanges() {
        return [weakInfo = std::weak_ptr(m_info), weakInbox = std::weak_ptr(m_inbox),
                log = m_log](const platform::Event& event) {
            const auto info = weakInfo.lock();
            const auto inbox = weakInbox.lock();
            if (info == nullptr || inbox == nullptr)
                return;
            const auto path =
                fromAbsoluteIRI(platform::getLocation(event.getEventData().getFileOrFolder()));
            const auto kind = kindOf(event.getEventData().getKind());
            if (!info->enabled)
                return log->add(path, kind, EventLog::Outcome::Disabled);
            // A single entry with this name matters for the folder that holds it.
            if (path.isBelow(info->root) && info->isForbidden(path))
                inbox->add(path.parentPath(), PendingEvents::Forbidden);
            else
                inbox->add(path, kind);
        };
    }

    static unsigned kindOf(StorageEventKind kind) noexcept {
        switch (kind) {
        case StorageEventKind::Created:
            return PendingEvents::Created;
        case StorageEventKind::Changed:
            return PendingEvents::Changed;
        case StorageEventKind::Deleted:
            return PendingEvents::Deleted;
        default:
            return PendingEvents::ContentsUnknown;
        }
    }

    /// On the strand: follows the folders that events name, and keeps what needs a query.
    void takeArrived() {
        const auto arrived = m_inbox->take();
        for (const auto& [path, event] : arrived) {
            if (!m_info->enabled) {
                m_log->add(path, event.kinds, EventLog::Outcome::Disabled);
                continue;
            }
            try {
                if (m_info->folders != nullptr)
                    followFolder(path, event.kinds);
                if (m_info->needsQuery(path, event))
                    m_waiting.add(path, event);
                else
                    m_log->add(path, event.kinds, EventLog::Outcome::NoQuery);
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION(); // it may be the next one's turn all the same
                m_waiting.add(path, event);
            }
        }
        release();
    }

    /// On the strand: requests what waits, unless queries run that were requested here.
    void release() {
        if (m_silenceEnded.exchange(false))
            m_hasSilenceTimer = false;
        if (m_waiting.empty())
            return;
        if (!m_info->enabled) {
            for (const auto& [path, event] : m_waiting.take())
                m_log->add(path, event.kinds, EventLog::Outcome::Disabled);
            return;
        }
        if (isRunning())
            wakeAfter(silence, m_hasSilenceTimer, m_silenceEnded);
        else
            requestWaiting();
    }

    /// Whether a query that the updater requested has started and not ended. The end of one that
    /// was skipped, because something combined with it was cancelled, is not told; but then its
    /// task is gone.
    bool isRunning() {
        const std::lock_guard lock(m_askedMutex);
        const auto isRunning = [](const auto& each) {
            return each.isStarted && !each.task.expired();
        };
        return std::ranges::any_of(m_asked, isRunning) ||
               std::ranges::any_of(m_askedBeside, isRunning);
    }

    /// On the cache's strand, before the query.
    void noteStarted(const CMStatusCache::Tasks& tasks) {
        const std::set<std::shared_ptr<CacheTask>> started(tasks.begin(), tasks.end());
        const std::lock_guard lock(m_askedMutex);
        for (auto& each : m_asked)
            each.isStarted |= std::ranges::any_of(
                each.tasks, [&](const auto& task) { return started.contains(task.lock()); });
        for (auto& each : m_askedBeside)
            each.isStarted |= started.contains(each.task.lock());
        if (m_isAsking)
            m_startedMeanwhile.insert(m_startedMeanwhile.end(), tasks.begin(), tasks.end());
    }

    /// On the strand: has release() called after `delay`, with `ended` set.
    /// @return false when no such task can be had
    bool wakeAfter(std::chrono::milliseconds delay, bool& hasTimer, std::atomic<bool>& ended) {
        if (hasTimer)
            return true;
        try {
            m_services->delayedTasks->runAfter(delay, [weak = weak_from_this(), &ended] {
                if (const auto self = weak.lock()) {
                    ended = true;
                    self->m_inbox->wake();
                }
            });
            return hasTimer = true;
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            return false;
        }
    }

    /// On the strand. What cannot be requested, for lack of a thread or of memory, waits again.
    void requestWaiting() {
        PendingEvents::Events events;
        try {
            events = m_waiting.take();
            AskedPaths files;
            for (const auto& [path, event] : events) {
                if (!m_info->needsQuery(path, event)) {
                    m_log->add(path, event.kinds, EventLog::Outcome::NoQuery);
                    continue;
                }
                const bool isFile = respond(path, event.kinds);
                m_log->add(path, event.kinds,
                           isFile ? EventLog::Outcome::FileQuery : EventLog::Outcome::FolderQuery);
                if (isFile)
                    files.emplace(path, event.kinds);
            }
            if (!files.empty())
                ask(files);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            m_waiting.add(events);
            wakeAfter(retryInterval, m_hasSilenceTimer, m_silenceEnded);
        }
    }

    /// On the strand: has folders refreshed.
    /// @return whether `path` itself is to be queried
    bool respond(const Path& path, unsigned kinds) {
        QUENDO_LOG(Severity::Detail) << " path.string()=" << path;
        if ((kinds & PendingEvents::Forbidden) != 0 && m_info->leavesNested) {
            noteForbidden(path);
            refreshAround(path, RefreshReason::FileEvent);
        }
        if ((kinds & PendingEvents::Dependency) != 0)
            refreshAround(path, RefreshReason::Dependency);
        if (m_info->isInNested(path))
            return false; // what matters in there is watched by m_dependencies
        if ((kinds & (PendingEvents::ContentsUnknown | PendingEvents::Folded)) != 0) {
            refreshAround(path, (kinds & PendingEvents::ContentsUnknown) != 0
                                    ? RefreshReason::EventsLost
                                    : RefreshReason::FileEvent);
            return false;
        }
        if (auto submodule = m_info->emptySubmoduleAround(path); !submodule.empty()) {
            refreshSoon(std::move(submodule), RefreshReason::FileEvent);
            return false;
        }
        const auto entry =
            kinds & (PendingEvents::Created | PendingEvents::Changed | PendingEvents::Deleted);
        if (entry != 0 && path != m_info->root && m_info->isMetadata(path)) {
            refreshSoon(path.parentPath(), RefreshReason::FileEvent);
            return false;
        }
        if ((entry & PendingEvents::Changed) != 0 && m_info->holdsBelow(path)) {
            // It may have become readable, or unreadable.
            refreshSoon(path, RefreshReason::FileEvent);
            return entry != PendingEvents::Changed;
        }
        return entry != 0;
    }

    /// Posts work that follows an answer. Without a thread for it all counts as unknown.
    void postWork(Executor::Task task) {
        try {
            m_executor->post(std::move(task));
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            m_inbox->add(m_info->root, PendingEvents::ContentsUnknown);
        }
    }

    /// @return whether that is new
    bool noteForbidden(const Path& folder) {
        if (folder == m_info->root)
            return false;
        const std::lock_guard lock(m_nestedMutex);
        return m_withForbidden.insert(folder).second;
    }

    void updateDependencies() {
        const auto hold = m_lock.read();
        if (m_dependencies != nullptr)
            m_dependencies->update();
    }

    std::vector<Path> nestedCandidates() {
        const std::lock_guard lock(m_nestedMutex);
        std::erase_if(m_withForbidden,
                      [&](const Path& folder) { return !m_info->hasForbidden(folder); });
        std::vector<Path> nested;
        std::ranges::set_union(m_nested, m_withForbidden, std::back_inserter(nested));
        return nested;
    }

    /// On the strand: has `path` refreshed with all below it, and with what is unsure around it.
    void refreshAround(const Path& path, RefreshReason reason) {
        const auto around = m_info->folders != nullptr ? m_info->outermostUnsure(path) : Path();
        refreshSoon(around.empty() ? path : around, reason);
    }

    /// Paths, and bits of PendingEvents::Kind.
    using AskedPaths = std::map<Path, unsigned>;

    /// Files that were asked for.
    struct Asked {
        std::vector<std::weak_ptr<CacheTask>> tasks; ///< nobody waits for them
        std::weak_ptr<CacheTask> task;               ///< the last of them
        AskedPaths paths;
        bool isStarted = false; ///< one of the tasks
    };
    /// Another refresh.
    struct AskedBeside {
        std::weak_ptr<CacheTask> task;
        bool isStarted = false;
    };

    /// With m_askedMutex: files that were asked for last and whose query has not started; or null.
    Asked* queuedFiles() {
        return !m_asked.empty() && !m_asked.back().isStarted && !m_asked.back().task.expired()
                   ? &m_asked.back()
                   : nullptr;
    }

    /// Requests files, and looks at what the answer means for folders. What has been requested and
    /// has not started is not requested again.
    void ask(const AskedPaths& asked) {
        std::vector<Path> paths;
        {
            const std::lock_guard lock(m_askedMutex);
            auto* const queued = queuedFiles();
            for (const auto& [path, kinds] : asked) {
                if (queued != nullptr && queued->paths.contains(path))
                    queued->paths[path] |= kinds;
                else
                    paths.push_back(path);
            }
        }
        if (paths.empty())
            return;
        std::vector<Asked> answered;
        submit(
            RefreshReason::FileEvent, [&] { return m_info->cache->refreshCMStatuses(paths); },
            [&](const std::shared_ptr<CacheTask>& task, bool hasStarted, bool hasEnded) {
                auto* entry = hasStarted ? nullptr : queuedFiles();
                if (entry == nullptr)
                    entry = &(hasEnded ? answered : m_asked).emplace_back();
                entry->isStarted = hasStarted;
                for (const auto& path : paths)
                    entry->paths[path] |= asked.at(path);
                entry->tasks.push_back(task);
                entry->task = task;
            });
        followAnswers(answered);
    }

    /// Calls `request` and notes its task as under way.
    template <class Request>
    void askBeside(RefreshReason why, const Request& request) {
        submit(why, request,
               [&](const std::shared_ptr<CacheTask>& task, bool hasStarted, bool hasEnded) {
                   if (!hasEnded)
                       m_askedBeside.push_back({task, hasStarted});
               });
    }

    /// On the strand. Calls `request` without a lock: the cache may call executors, and listeners
    /// of the termination signal of a folder whose background query it interrupts. Then calls
    /// `note`, with m_askedMutex, unless the end of the task is not told: with the task, and
    /// whether that has started and has ended meanwhile.
    template <class Request, class Note>
    void submit(RefreshReason why, const Request& request, const Note& note) {
        {
            const std::lock_guard lock(m_askedMutex);
            dropUntold(m_asked);
            dropUntold(m_askedBeside);
            m_isAsking = true;
        }
        std::shared_ptr<CacheTask> task;
        try {
            const RefreshReasonScope reason(why);
            task = request();
        } catch (...) {
            const std::lock_guard lock(m_askedMutex);
            m_isAsking = false;
            m_startedMeanwhile.clear();
            m_endedMeanwhile.clear();
            throw;
        }
        const std::lock_guard lock(m_askedMutex);
        m_isAsking = false;
        const auto isIn = [&](const std::vector<std::weak_ptr<CacheTask>>& list) {
            return std::ranges::any_of(list, [&](const auto& each) { return each.lock() == task; });
        };
        const auto started = std::exchange(m_startedMeanwhile, {});
        const auto ended = std::exchange(m_endedMeanwhile, {});
        if (isTold(task))
            note(task, isIn(started), isIn(ended));
    }

    /// With m_askedMutex: drops those whose end was not told, when there are many.
    template <class Each>
    static void dropUntold(std::vector<Each>& list) {
        if (list.size() >= mostUntold && list.size() == list.capacity())
            std::erase_if(list, [](const auto& each) { return each.task.expired(); });
    }

    /// Whether the end of the task is told to lookAtAnswered().
    bool isTold(const std::shared_ptr<CacheTask>& task) const {
        return m_isTold && task != nullptr && dynamic_cast<const NoOpTask*>(task.get()) == nullptr;
    }

    /// On the cache's strand: what was ignored, or another's, and is not so any more, was not
    /// watched; and entries of folders may no longer fit.
    void lookAtChanges(const StatusChanges& changed) {
        const auto isAside = [&](const std::optional<FileState>& state) {
            return state && state->isFolder() &&
                   (state->getState() == LocalStatus::Ignored ||
                    state->getState() == LocalStatus::External || m_info->isNested(*state));
        };
        followNested(changed);
        std::vector<Path> folders, ignored, answered;
        for (const auto& change : changed.changes) {
            if (isAside(change.before) && !isAside(change.after))
                folders.push_back(change.path);
            if (change.after && change.after->getState() == LocalStatus::Ignored)
                ignored.push_back(change.path);
        }
        lookIntoLater({}, std::move(folders));
        if (auto misfits = m_info->misfitsAround(changed);
            !misfits.alone.empty() || !misfits.whole.empty())
            postWork([weak = weak_from_this(), misfits = std::move(misfits)] {
                const auto self = weak.lock();
                if (self == nullptr || !self->m_info->enabled)
                    return;
                if (!misfits.alone.empty())
                    self->askBeside(RefreshReason::FileEvent, [&] {
                        return self->m_info->cache->refreshCMStatuses(misfits.alone);
                    });
                for (const auto& path : misfits.whole)
                    self->refreshSoon(path, RefreshReason::FileEvent);
            });
        if (ignored.empty())
            return;
        for (const auto& change : changed.changes) {
            if (change.after)
                answered.push_back(change.path);
        }
        postWork([weak = weak_from_this(), ignored = std::move(ignored),
                  answered = std::move(answered)]() mutable {
            if (const auto self = weak.lock())
                self->foldIgnored(ignored, std::move(answered));
        });
    }

    /// On the cache's strand: updates the set of nested working copies. Refreshes those that have
    /// got entries for paths in them, which removes these entries.
    void followNested(const StatusChanges& changed) {
        if (!m_info->leavesNested)
            return;
        std::vector<Path> external;
        std::set<Path> foldersAlone; // got an entry, and are no new entries themselves
        {
            const std::lock_guard lock(m_nestedMutex);
            for (const auto& change : changed.changes) {
                if (change.after && m_info->isNested(*change.after))
                    m_nested.insert(change.path);
                else if (change.before)
                    m_nested.erase(change.path);
                // It may hold metadata that are incomplete, though it cannot be listed.
                if (change.after && change.after->isFolder() &&
                    change.after->getState() == LocalStatus::Unknown)
                    m_withForbidden.insert(change.path);
                if (!change.after || change.after->getState() != LocalStatus::External)
                    continue;
                external.push_back(change.path);
                if (!change.before)
                    foldersAlone.insert(change.path.parentPath());
            }
        }
        if (external.empty())
            return;
        for (const auto& change : changed.changes)
            if (!change.before && !foldersAlone.empty())
                foldersAlone.erase(change.path);
        postWork([weak = weak_from_this(), external = std::move(external),
                  foldersAlone = std::move(foldersAlone)] {
            const auto self = weak.lock();
            if (self == nullptr || !self->m_info->enabled)
                return;
            for (const auto& path : external) {
                const bool cameAlone = foldersAlone.contains(path.parentPath());
                if (auto around = self->m_info->nestedAround(path, cameAlone); !around.empty())
                    self->refreshSoon(std::move(around), RefreshReason::FileEvent);
            }
        });
    }

    /// On the strand: what is ignored as a whole is to be one entry, in whatever order it and what
    /// lies in it were answered. What one answer says of both holds.
    /// @param ignored of those in `answered`
    void foldIgnored(const std::vector<Path>& ignored, std::vector<Path> answered) {
        std::ranges::sort(answered);
        for (const auto& path : ignored) {
            auto around = m_info->ignoredAround(path);
            if (std::ranges::binary_search(answered, around))
                around = Path();
            if (around.empty()) {
                auto at = std::ranges::upper_bound(answered, path);
                std::size_t below = 0;
                for (; at != answered.end() && at->string().starts_with(path.string()); ++at)
                    below += at->isBelow(path) ? 1 : 0;
                if (m_info->folders->getFolderSummary(path).below.total() > below)
                    around = path;
            }
            if (!around.empty())
                refreshSoon(std::move(around), RefreshReason::FileEvent);
        }
    }

    /// On the cache's strand.
    void lookAtAnswered(const CMStatusCache::Tasks& tasks) {
        {
            const auto hold = m_lock.write();
            if (std::exchange(m_isUnasked, false))
                lookIntoLater({m_info->root}, {});
            if (m_dependencies != nullptr)
                m_dependencies->update();
        }
        std::vector<Asked> answered;
        {
            // Tasks end in the order of their requests. A skipped refresh, with which somebody's
            // cancelled request was combined, ends without a notice and is retried without its
            // task. So an expired task has ended as well.
            const std::set<std::shared_ptr<CacheTask>> finished(tasks.begin(), tasks.end());
            const std::lock_guard lock(m_askedMutex);
            const auto last = std::find_if(m_asked.rbegin(), m_asked.rend(), [&](const auto& each) {
                return finished.contains(each.task.lock());
            });
            std::move(m_asked.begin(), last.base(), std::back_inserter(answered));
            m_asked.erase(m_asked.begin(), last.base());
            const auto skipped = std::ranges::stable_partition(
                m_asked, [](const auto& each) { return !each.task.expired(); });
            std::ranges::move(skipped, std::back_inserter(answered));
            m_asked.erase(skipped.begin(), skipped.end());
            std::erase_if(m_askedBeside, [&](const auto& each) {
                return each.task.expired() || finished.contains(each.task.lock());
            });
            if (m_isAsking)
                m_endedMeanwhile.insert(m_endedMeanwhile.end(), tasks.begin(), tasks.end());
        }
        m_inbox->retry();
        if (answered.empty() && !m_hasPostponed) {
            if (!m_waiting.empty())
                m_inbox->wake();
            return;
        }
        postWork([weak = weak_from_this(), answered = std::move(answered)] {
            const auto self = weak.lock();
            if (self == nullptr)
                return;
            self->m_hasPostponed = false;
            self->lookIntoLater({}, std::exchange(self->m_postponed, {}));
            if (self->m_info->enabled)
                self->followAnswers(answered);
            self->release();
        });
    }

    void followAnswers(const std::vector<Asked>& answered) {
        std::set<Path> changed; // folders
        for (const auto& each : answered) {
            for (const auto& [path, kinds] : each.paths) {
                const bool isChange = kinds == PendingEvents::Changed;
                auto folder = m_info->ignoredAround(path);
                if (folder.empty() && !isChange)
                    folder = m_info->outermostUnsure(path);
                if (!folder.empty())
                    refreshSoon(std::move(folder), RefreshReason::FileEvent);
                if (!isChange)
                    changed.insert(path.parentPath());
            }
        }
        for (const auto& folder : changed)
            if (m_services->folderWatcher->getHealth(folder).means ==
                platform::WatchHealth::Means::Polled)
                askForWhatWent(folder, list(folder));
    }

    /// On the strand: asks for `folder` when not all is there any more that is cached in it.
    void askForWhatWent(const Path& folder, const Listing& listing) {
        const auto& root = m_info->root;
        if ((folder != root && !folder.isBelow(root)) ||
            !m_info->missesAny(folder, listing.entries))
            return;
        auto around = m_info->outermostUnsure(folder);
        refreshSoon(around.empty() ? folder : std::move(around), RefreshReason::FileEvent);
    }

    /// On the strand: has `folder` refreshed when what the strand has to do now is done; at once
    /// where the cache cannot share requests.
    void refreshSoon(Path folder, RefreshReason reason) {
        if (m_info->freshness == nullptr) {
            const RefreshReasonScope scope(reason);
            m_info->refreshFolder(folder);
            return;
        }
        if (auto submodule = m_info->emptySubmoduleAround(folder); !submodule.empty())
            folder = std::move(submodule);
        m_unfresh.emplace(std::move(folder), reason);
        if (std::exchange(m_isCollecting, true))
            return;
        try {
            m_executor->post([weak = weak_from_this()] {
                if (const auto self = weak.lock())
                    self->refreshCollected();
            });
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            refreshCollected(); // at once, then
        }
    }

    void refreshCollected() {
        m_isCollecting = false;
        auto folders = std::exchange(m_unfresh, {});
        if (!m_info->enabled)
            return release();
        if (folders.size() > mostFoldersAtOnce) {
            Path around = folders.begin()->first;
            while (std::ranges::any_of(folders, [&](const auto& each) {
                return each.first != around && !each.first.isBelow(around);
            }))
                around = around.parentPath();
            folders = {{around, folders.begin()->second}};
        }
        for (const auto& [folder, reason] : folders) {
            try {
                askBeside(reason, [&] { return m_info->refreshFolder(folder); });
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
                m_waiting.add(folder, reason == RefreshReason::Dependency
                                          ? PendingEvents::Dependency
                                          : PendingEvents::ContentsUnknown);
                wakeAfter(retryInterval, m_hasSilenceTimer, m_silenceEnded);
            }
        }
        if (!m_waiting.empty())
            release();
    }

    /// On the strand: keeps the bare folders right when `path` comes, goes, or is unknown.
    void followFolder(const Path& path, unsigned kinds) {
        constexpr unsigned unknown = PendingEvents::ContentsUnknown | PendingEvents::Folded;
        if ((kinds & (unknown | PendingEvents::Created | PendingEvents::Deleted)) == 0)
            return;
        bool isNew = false;
        {
            const auto hold = m_lock.write();
            if (m_stopped)
                return;
            if ((kinds & (unknown | PendingEvents::Deleted)) != 0)
                dropGoneFolders(path);
            if ((kinds & PendingEvents::Created) != 0)
                isNew = watchBare(path);
        }
        if ((kinds & PendingEvents::Folded) != 0)
            watchMissedFolders(path);
        if (isNew || (kinds & unknown) != 0)
            lookInto({path});
    }

    /// With the lock held: drops the watches of bare folders at or below `path` that have gone.
    void dropGoneFolders(const Path& path) {
        for (auto at = m_bareWatches.lower_bound(path);
             at != m_bareWatches.end() && at->first.string().starts_with(path.string());)
            at = (at->first == path || at->first.isBelow(path)) && !isOwnFolder(at->first)
                     ? m_bareWatches.erase(at)
                     : std::next(at);
    }

    void dropGoneFoldersLater() {
        postWork([weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                const auto hold = self->m_lock.write();
                self->dropGoneFolders(self->m_info->root);
            }
        });
    }

    /// Whether `path` is a folder below the root, and no symbolic link leads there from the root.
    bool isOwnFolder(const Path& path) const {
        if (!path.isBelow(m_info->root))
            return false;
        for (Path folder = path; folder.isBelow(m_info->root); folder = folder.parentPath()) {
            struct stat status;
            if (::lstat(folder.toNative().c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
                return false;
        }
        return true;
    }

    /// On the strand, with the lock held.
    /// @return whether `path` is a folder that is watched now and was not before
    bool watchBare(const Path& path) {
        if (!m_info->cache->getFolderStatusFlag()) {
            m_info->hasMissedFolders = true; // to be watched when the flag is set
            return false;
        }
        if (m_watches.contains(path) || m_bareWatches.contains(path) || m_info->isForbidden(path) ||
            !isOwnFolder(path))
            return false;
        if (m_info->isInOneEntry(path))
            return false;
        // Single files of what is ignored may have been asked for. It is one entry again in a
        // moment.
        if (m_unfresh.contains(m_info->ignoredAround(path))) {
            m_postponed.push_back(path);
            m_hasPostponed = true;
            return false;
        }
        try {
            add(path, WithRecursiveChangeEvents::NonRecursive, m_bareWatches);
        } catch (const platform::ChangeEventsSubscriptionException&) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // the folders beside it are watched all the same
            m_refusedBare.insert(path);
            return false;
        }
        return true;
    }

    /// On the strand: adds `folder` to `found` if it is watched now and was not before.
    /// @return false after stop()
    bool watchFound(const Path& folder, std::vector<Path>& found) {
        const auto hold = m_lock.write();
        if (!m_stopped && watchBare(folder))
            found.push_back(folder);
        return !m_stopped;
    }

    /// Watches the folders at any depth below `top` that came while nobody followed them.
    void watchMissedFoldersLater(const Path& top) {
        postWork([weak = weak_from_this(), top] {
            if (const auto self = weak.lock()) {
                self->watchMissedFolders(top);
                self->release();
            }
        });
    }

    /// On the strand.
    void watchMissedFolders(const Path& top) {
        std::vector<Path> watched, found;
        {
            const auto hold = m_lock.read();
            for (const auto* watches : {&m_watches, &m_bareWatches})
                for (const auto& [folder, subscription] : *watches)
                    if (folder == top || folder.isBelow(top))
                        watched.push_back(folder);
        }
        for (const auto& folder : watched)
            for (const auto& entry : list(folder).entries)
                if (entry.isFolder && !watchFound(entry.path, found))
                    return;
        lookInto(std::move(found));
    }

    /// @param dropped may be there, with nothing cached in them
    void lookIntoLater(std::vector<Path> added, std::vector<Path> dropped) {
        if (added.empty() && dropped.empty())
            return;
        postWork([weak = weak_from_this(), folders = std::move(added),
                  dropped = std::move(dropped)]() mutable {
            const auto self = weak.lock();
            if (self == nullptr)
                return;
            for (const auto& folder : dropped)
                if (folder.isBelow(self->m_info->root))
                    self->watchFound(folder, folders);
            self->lookInto(std::move(folders));
            self->release();
        });
    }

    /// On the strand: closes the gap for folders whose watch has just been made. release() requests
    /// what it finds.
    void lookInto(std::vector<Path> folders) {
        const auto notBefore = m_info->enabledAt.load() - tick;
        while (!folders.empty()) {
            const Path folder = std::move(folders.back());
            folders.pop_back();
            if (folder != m_info->root && !folder.isBelow(m_info->root))
                continue; // the root's parent, see respond()
            const auto answered = answeredAt(folder);
            const auto listing = list(folder);
            if (m_info->enabled && (!answered || listing.changed >= *answered - margin))
                askForWhatWent(folder, listing);
            for (const auto& entry : listing.entries) {
                if (m_info->isForbidden(entry.path)) {
                    if (!m_info->leavesNested || folder == m_info->root)
                        continue;
                    if (noteForbidden(folder))
                        updateDependencies();
                    if (m_info->enabled && (!answered || entry.changed >= *answered - margin))
                        m_waiting.add(folder, PendingEvents::Forbidden);
                    continue;
                }
                // Of a folder that was never asked for, single files may have been.
                const auto since = answered ? answered : answeredAt(entry.path);
                if (since && entry.changed >= *since - margin && entry.changed >= notBefore &&
                    m_info->enabled)
                    m_waiting.add(entry.path, PendingEvents::Created);
                if (entry.isFolder && !watchFound(entry.path, folders))
                    return;
            }
        }
    }

    /// When the query started that tells about `path`; now when the cache does not say, and nothing
    /// when there was none.
    std::optional<Clock::time_point> answeredAt(const Path& path) const {
        if (m_info->freshness == nullptr)
            return Clock::now();
        const auto at = m_info->freshness->getFreshness(path).answeredAt;
        return at ? std::optional(toSystemTime(*at)) : std::nullopt;
    }

    /// The same for DependencyWatches; while the first answer is being queried, when it was
    /// requested, which is earlier.
    std::optional<Clock::time_point> queriedAt(const Path& path) const {
        if (m_info->freshness == nullptr)
            return Clock::now();
        const auto fresh = m_info->freshness->getFreshness(path);
        if (fresh.answeredAt)
            return toSystemTime(*fresh.answeredAt);
        if (fresh.refresh == Freshness::Refresh::Running && fresh.staleness)
            return toSystemTime(fresh.staleness->since);
        return {};
    }

    static Clock::time_point toSystemTime(std::chrono::steady_clock::time_point at) {
        return Clock::now() -
               std::chrono::duration_cast<Clock::duration>(std::chrono::steady_clock::now() - at);
    }

    // Constant after construction.
    const std::shared_ptr<const platform::Services> m_services = platform::services();
    const std::shared_ptr<CacheUpdateInfo> m_info;
    std::shared_ptr<Executor> m_executor;
    std::shared_ptr<EventInbox> m_inbox;
    bool m_isTold = false; ///< of the end of refreshes

    // Own synchronisation.
    const std::shared_ptr<EventLog> m_log = std::make_shared<EventLog>();
    PendingEvents m_waiting; ///< need a query; changed on the strand

    mutable ReentrantReadWriteLock m_lock;
    // Guarded by m_lock.
    Watches m_watches;
    Watches m_bareWatches;
    std::vector<Path> m_refused;  ///< wanted folders without a watch
    std::set<Path> m_refusedBare; ///< the same of bare folders
    bool m_stopped = false;
    bool m_isUnasked = false; ///< no query has ended, and what lies below the root is not watched
    std::uint64_t m_folderSetVersion = ~std::uint64_t{0};
    std::exception_ptr m_rootRefusal;
    boost::signals2::scoped_connection m_changesConnection;
    boost::signals2::scoped_connection m_startedConnection;
    boost::signals2::scoped_connection m_finishedConnection;
    boost::signals2::scoped_connection m_cacheConnection;

    // Used on the strand only.
    std::map<Path, RefreshReason> m_unfresh; ///< to be refreshed, see refreshSoon()
    bool m_isCollecting = false;             ///< refreshCollected() is posted
    bool m_hasSilenceTimer = false;
    std::vector<Path> m_postponed; ///< bare folders to be watched or not

    std::atomic<bool> m_hasPostponed{false};
    std::atomic<bool> m_silenceEnded{false}; ///< a timer

    std::shared_ptr<DependencyWatches> m_dependencies; ///< guarded by m_lock

    std::mutex m_nestedMutex; ///< no other lock is taken while it is held
    std::set<Path> m_nested, m_withForbidden;

    mutable std::mutex m_askedMutex; ///< not held together with m_lock
    std::vector<Asked> m_asked; ///< as they were asked for; guarded by m_askedMutex, as is the rest
    std::vector<AskedBeside> m_askedBeside;
    bool m_isAsking = false; ///< a request is being made, and its task is not noted yet
    std::vector<std::weak_ptr<CacheTask>> m_startedMeanwhile, m_endedMeanwhile;
};

VFSFileChangeCacheUpdater::VFSFileChangeCacheUpdater(std::shared_ptr<CMStatusCache> cache,
                                                     const CMAdapter& adapter) {
    QUENDO_TRACE_SCOPE();
    m_impl = std::make_shared<Impl>(std::move(cache), adapter);
    m_impl->start();
}

VFSFileChangeCacheUpdater::~VFSFileChangeCacheUpdater() = default;
VFSFileChangeCacheUpdater::VFSFileChangeCacheUpdater(VFSFileChangeCacheUpdater&&) noexcept =
    default;
VFSFileChangeCacheUpdater&
VFSFileChangeCacheUpdater::operator=(VFSFileChangeCacheUpdater&&) noexcept = default;

void VFSFileChangeCacheUpdater::stop() {
    QUENDO_TRACE_SCOPE();
    m_impl->stop();
}

void VFSFileChangeCacheUpdater::follow(std::shared_ptr<StateDependencies> dependencies) {
    QUENDO_TRACE_SCOPE();
    m_impl->follow(std::move(dependencies));
}

scope_guard VFSFileChangeCacheUpdater::disable() {
    QUENDO_TRACE_SCOPE();
    return m_impl->disable();
}

std::optional<std::chrono::steady_clock::time_point>
VFSFileChangeCacheUpdater::outdatedSince(const Path& path) const {
    return m_impl->outdatedSince(path);
}

std::optional<std::chrono::steady_clock::time_point>
VFSFileChangeCacheUpdater::waitsForThreadSince() const {
    return m_impl->waitsForThreadSince();
}

std::string VFSFileChangeCacheUpdater::describe() const {
    QUENDO_TRACE_SCOPE();
    return m_impl->describe();
}

std::exception_ptr VFSFileChangeCacheUpdater::rootRefusal() const {
    QUENDO_TRACE_SCOPE();
    return m_impl->rootRefusal();
}

} // namespace quendo
