#include "quendo/cache/VFSFileChangeCacheUpdater.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/DependencyWatches.h"
#include "quendo/platform/ChangeEventsSubscriptionException.h"
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
// the caller's refresh.
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
// What an event brings. The handler, on the delivery thread, only posts a task to a strand. The
// task asks for the path, or, for a metadata file, for its folder. When the events of a folder were
// lost, or its tree was moved, all of it is asked for; of everything, where the strand could not
// take an event.
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
// folder removes it. Where a folder gains or loses a forbidden name (".git"), it may have become
// a nested working copy or ceased to be one: it is refreshed, and named to DependencyWatches,
// because the new metadata may be incomplete yet. In the root, everything is refreshed.
//
// Bursts. Requests for folders join one that waits already (CMStatusCacheFreshness), but two that
// lie beside each other are two queries, and a query of much costs little more than one of a
// little. So folders are collected as long as the strand has tasks, and of more than a few the
// folder around them all is asked for.
//
// Threads. The set of watches is guarded by the lock, which is held while watches are made and
// dropped. Dropping one waits for its handler; so handlers take no lock. Tasks hold `info` weakly,
// and the Impl only for the time of one task.

namespace quendo {
namespace {

using platform::StorageEventKind;
using platform::WithRecursiveChangeEvents;
using Clock = std::chrono::system_clock;

// Time stamps of files come from a clock that steps with the kernel's tick, 10 ms at most.
constexpr std::chrono::milliseconds tick{10};
constexpr std::chrono::milliseconds margin{100};

constexpr std::size_t mostFoldersAtOnce = 4;

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
    std::atomic<bool> hasLost{false};          ///< an event
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

    void refreshFolder(const Path& folder) const {
        if (freshness != nullptr)
            freshness->requireFreshFolder(folder);
        else
            cache->refreshFolder(folder);
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

    bool hasForbidden(const Path& folder) const {
        struct stat status;
        return std::ranges::any_of(forbiddenNames, [&](const UString& name) {
            return ::lstat((folder / name).toNative().c_str(), &status) == 0;
        });
    }

    /// The nested working copy in which `path`, which was answered as External, lies: the outermost
    /// folder around it that holds a forbidden name, or that holds External paths only, because its
    /// metadata are not there. Empty when `path` is a nested working copy itself.
    Path nestedAround(const Path& path) const {
        Path result;
        for (Path folder = path.parentPath(); folder.isBelow(root); folder = folder.parentPath())
            if (hasForbidden(folder))
                result = folder;
        if (!result.empty() || hasForbidden(path))
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
        : m_info(std::make_shared<CacheUpdateInfo>()) {
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
        if (isInstallation()) {
            QUENDO_LOG(Severity::Notice)
                << "File watch not being enabled for folder because it is KESTRO root";
            return;
        }
        const auto weak = weak_from_this();
        if (m_info->folders != nullptr) {
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
            return self ? self->answeredAt(path) : std::nullopt;
        };
        callbacks.changed = [weak](const std::vector<Path>& paths) {
            const auto self = weak.lock();
            if (self == nullptr)
                return;
            self->m_executor->post([weak, paths] {
                const auto locked = weak.lock();
                if (locked != nullptr && locked->m_info->enabled)
                    for (const auto& path : paths)
                        locked->refreshAround(path);
            });
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
            }
        });
    }

    std::exception_ptr rootRefusal() const {
        const auto hold = m_lock.read();
        return m_rootRefusal;
    }

    /// Makes the watched folders those that are wanted now.
    void refresh() {
        const auto hold = m_lock.write();
        if (m_stopped)
            return;
        if (m_info->folders != nullptr) {
            if (m_info->enabled && m_info->hasMissedFolders.exchange(false))
                watchMissedFoldersLater();
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
        return [weakInfo = std::weak_ptr(m_info), weakExecutor = std::weak_ptr(m_executor),
                weak = weak_from_this()](const platform::Event& event) {
            const auto info = weakInfo.lock();
            if (info == nullptr || !info->enabled)
                return;
            const auto kind = event.getEventData().getKind();
            const auto path =
                fromAbsoluteIRI(platform::getLocation(event.getEventData().getFileOrFolder()));
            const auto executor = weakExecutor.lock();
            if (executor == nullptr)
                return;
            try {
                executor->post([weak, kind, path] {
                    try {
                        if (const auto self = weak.lock())
                            self->take(kind, path);
                    } catch (...) {
                        QUENDO_LOG_CAUGHT_EXCEPTION();
                    }
                });
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
                info->hasLost = true; // there is no thread to be had: told with the next event
            }
        };
    }

    /// On the strand.
    void take(StorageEventKind kind, const Path& path) {
        if (!m_info->enabled)
            return;
        if (m_info->folders != nullptr && kind != StorageEventKind::Changed)
            followFolder(kind, path);
        if (m_info->hasLost.exchange(false))
            respond(StorageEventKind::ContentsUnknown, m_info->root);
        else
            respond(kind, path);
    }

    /// On the strand.
    /// @param path may lie above the root or beside it: while nothing but the root is cached, its
    ///             parent is watched. What was asked for there would be answered with nothing.
    void respond(StorageEventKind kind, const Path& path) {
        QUENDO_LOG(Severity::Detail) << " path.string()=" << path;
        const auto& root = m_info->root;
        if (kind == StorageEventKind::ContentsUnknown && root.isBelow(path))
            return respond(kind, root);
        if (path != root && !path.isBelow(root))
            return;
        if (path != root && m_info->isForbidden(path)) {
            if (m_info->leavesNested)
                respondToForbidden(path.parentPath());
        } else if (m_info->isInNested(path)) {
            return; // what matters in there is watched by m_dependencies
        } else if (kind == StorageEventKind::ContentsUnknown) {
            refreshAround(path);
        } else if (m_info->metadataFileNames.contains(UString(path.fileName().string()))) {
            refreshSoon(path.parentPath());
        } else if (kind == StorageEventKind::Changed && m_info->holdsBelow(path)) {
            refreshSoon(path); // it may have become readable, or unreadable
        } else {
            ask({path}, kind);
        }
    }

    /// On the strand: `folder` has got a forbidden name, or lost one, or that has changed.
    void respondToForbidden(const Path& folder) {
        noteForbidden(folder);
        refreshAround(folder);
    }

    void noteForbidden(const Path& folder) {
        if (folder == m_info->root)
            return;
        const std::lock_guard lock(m_nestedMutex);
        m_withForbidden.insert(folder);
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
    void refreshAround(const Path& path) {
        const auto around = m_info->folders != nullptr ? m_info->outermostUnsure(path) : Path();
        refreshSoon(around.empty() ? path : around);
    }

    /// Asks for files, and looks at what the answer means for folders.
    void ask(const std::vector<Path>& paths, StorageEventKind kind) {
        if (m_info->folders == nullptr) {
            m_info->cache->refreshCMStatuses(paths);
            return;
        }
        // The task may have finished before it is noted: then its notice waits here.
        const std::lock_guard lock(m_askedMutex);
        m_asked.push_back({m_info->cache->refreshCMStatuses(paths), kind, paths});
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
            m_executor->post([weak = weak_from_this(), misfits = std::move(misfits)] {
                const auto self = weak.lock();
                if (self == nullptr || !self->m_info->enabled)
                    return;
                if (!misfits.alone.empty())
                    self->m_info->cache->refreshCMStatuses(misfits.alone);
                for (const auto& path : misfits.whole)
                    self->refreshSoon(path);
            });
        if (ignored.empty())
            return;
        for (const auto& change : changed.changes) {
            if (change.after)
                answered.push_back(change.path);
        }
        m_executor->post([weak = weak_from_this(), ignored = std::move(ignored),
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
        {
            const std::lock_guard lock(m_nestedMutex);
            for (const auto& change : changed.changes) {
                if (change.after && m_info->isNested(*change.after))
                    m_nested.insert(change.path);
                else if (change.before)
                    m_nested.erase(change.path);
                if (change.after && change.after->getState() == LocalStatus::External)
                    external.push_back(change.path);
            }
        }
        if (!external.empty())
            m_executor->post([weak = weak_from_this(), external = std::move(external)] {
                const auto self = weak.lock();
                if (self == nullptr || !self->m_info->enabled)
                    return;
                for (const auto& path : external)
                    if (auto around = self->m_info->nestedAround(path); !around.empty())
                        self->refreshSoon(std::move(around));
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
                refreshSoon(std::move(around));
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
            // Tasks end in the order in which they were asked for. What ended untold before these,
            // cancelled with what somebody else had asked for, has been asked for again by now.
            const std::set<std::shared_ptr<CacheTask>> finished(tasks.begin(), tasks.end());
            const std::lock_guard lock(m_askedMutex);
            const auto last = std::find_if(m_asked.rbegin(), m_asked.rend(), [&](const auto& each) {
                return finished.contains(each.task);
            });
            std::move(m_asked.begin(), last.base(), std::back_inserter(answered));
            m_asked.erase(m_asked.begin(), last.base());
        }
        if (answered.empty() && !m_hasPostponed)
            return;
        m_executor->post([weak = weak_from_this(), answered = std::move(answered)] {
            const auto self = weak.lock();
            if (self == nullptr)
                return;
            self->m_hasPostponed = false;
            self->lookIntoLater({}, std::exchange(self->m_postponed, {}));
            if (!self->m_info->enabled)
                return;
            const auto& info = *self->m_info;
            std::set<Path> changed; // folders
            for (const auto& [task, kind, paths] : answered) {
                for (const auto& path : paths) {
                    auto folder = info.ignoredAround(path);
                    if (folder.empty() && kind != StorageEventKind::Changed)
                        folder = info.outermostUnsure(path);
                    if (!folder.empty())
                        self->refreshSoon(std::move(folder));
                    if (kind != StorageEventKind::Changed)
                        changed.insert(path.parentPath());
                }
            }
            const auto& watcher = *self->m_services->folderWatcher;
            for (const auto& folder : changed)
                if (watcher.getHealth(folder).means == platform::WatchHealth::Means::Polled)
                    self->askForWhatWent(folder, list(folder));
        });
    }

    /// On the strand: asks for `folder` when not all is there any more that is cached in it.
    void askForWhatWent(const Path& folder, const Listing& listing) {
        const auto& root = m_info->root;
        if ((folder != root && !folder.isBelow(root)) ||
            !m_info->missesAny(folder, listing.entries))
            return;
        auto around = m_info->outermostUnsure(folder);
        refreshSoon(around.empty() ? folder : std::move(around));
    }

    /// On the strand: has `folder` refreshed when what the strand has to do now is done; at once
    /// where the cache cannot share requests.
    void refreshSoon(Path folder) {
        if (m_info->freshness == nullptr) {
            m_info->refreshFolder(folder);
            return;
        }
        if (m_unfresh.empty())
            m_executor->post([weak = weak_from_this()] {
                if (const auto self = weak.lock())
                    self->refreshCollected();
            });
        m_unfresh.insert(std::move(folder));
    }

    void refreshCollected() {
        auto folders = std::exchange(m_unfresh, {});
        if (!m_info->enabled)
            return;
        if (folders.size() > mostFoldersAtOnce) {
            Path around = *folders.begin();
            while (std::ranges::any_of(folders, [&](const auto& folder) {
                return folder != around && !folder.isBelow(around);
            }))
                around = around.parentPath();
            folders = {around};
        }
        for (const auto& folder : folders)
            m_info->refreshFolder(folder);
    }

    /// On the strand: keeps the bare folders right when `path` comes, goes, or is unknown.
    void followFolder(StorageEventKind kind, const Path& path) {
        std::vector<Path> found;
        {
            const auto hold = m_lock.write();
            if (m_stopped)
                return;
            if (kind == StorageEventKind::Created) {
                if (!watchBare(path))
                    return;
            } else {
                for (auto at = m_bareWatches.lower_bound(path);
                     at != m_bareWatches.end() && at->first.string().starts_with(path.string());)
                    at = (at->first == path || at->first.isBelow(path)) && !isOwnFolder(at->first)
                             ? m_bareWatches.erase(at)
                             : std::next(at);
            }
        }
        if (kind != StorageEventKind::Deleted)
            lookInto({path});
    }

    /// Whether `path` is a folder, and no symbolic link leads there from the root.
    bool isOwnFolder(const Path& path) const {
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

    /// With the lock held: watches the folders that came during a suspension, on the strand.
    void watchMissedFoldersLater() {
        m_executor->post([weak = weak_from_this()] {
            const auto self = weak.lock();
            if (self == nullptr)
                return;
            std::vector<Path> watched, found;
            {
                const auto hold = self->m_lock.read();
                for (const auto* watches : {&self->m_watches, &self->m_bareWatches})
                    for (const auto& [folder, subscription] : *watches)
                        watched.push_back(folder);
            }
            for (const auto& folder : watched)
                for (const auto& entry : list(folder).entries) {
                    if (!entry.isFolder)
                        continue;
                    const auto hold = self->m_lock.write();
                    if (self->m_stopped)
                        return;
                    if (self->watchBare(entry.path))
                        found.push_back(entry.path);
                }
            self->lookInto(std::move(found));
        });
    }

    /// @param dropped may be there, with nothing cached in them
    void lookIntoLater(std::vector<Path> added, std::vector<Path> dropped) {
        if (added.empty() && dropped.empty())
            return;
        m_executor->post([weak = weak_from_this(), folders = std::move(added),
                          dropped = std::move(dropped)]() mutable {
            const auto self = weak.lock();
            if (self == nullptr)
                return;
            for (const auto& folder : dropped) {
                const auto hold = self->m_lock.write();
                if (!self->m_stopped && folder.isBelow(self->m_info->root) &&
                    self->watchBare(folder))
                    folders.push_back(folder);
            }
            self->lookInto(std::move(folders));
        });
    }

    /// On the strand: closes the gap for folders whose watch has just been made.
    void lookInto(std::vector<Path> folders) {
        std::vector<Path> changed;
        const auto notBefore = m_info->enabledAt.load() - tick;
        while (!folders.empty()) {
            const Path folder = std::move(folders.back());
            folders.pop_back();
            const auto answered = answeredAt(folder);
            const auto listing = list(folder);
            if (m_info->enabled && (!answered || listing.changed >= *answered - margin))
                askForWhatWent(folder, listing);
            for (const auto& entry : listing.entries) {
                if (m_info->isForbidden(entry.path)) {
                    if (m_info->leavesNested && folder != m_info->root && m_info->enabled &&
                        (!answered || entry.changed >= *answered - margin))
                        respondToForbidden(folder);
                    continue;
                }
                // Of a folder that was never asked for, single files may have been.
                const auto since = answered ? answered : answeredAt(entry.path);
                if (since && entry.changed >= *since - margin && entry.changed >= notBefore)
                    changed.push_back(entry.path);
                if (!entry.isFolder)
                    continue;
                const auto hold = m_lock.write();
                if (m_stopped)
                    return;
                if (watchBare(entry.path))
                    folders.push_back(entry.path);
            }
        }
        if (!changed.empty() && m_info->enabled)
            ask(changed, StorageEventKind::Created);
    }

    /// When the query started that tells about `path`; now when the cache does not say, and nothing
    /// when there was none.
    std::optional<Clock::time_point> answeredAt(const Path& path) const {
        const auto now = Clock::now();
        if (m_info->freshness == nullptr)
            return now;
        const auto at = m_info->freshness->getFreshness(path).answeredAt;
        if (!at)
            return {};
        return now -
               std::chrono::duration_cast<Clock::duration>(std::chrono::steady_clock::now() - *at);
    }

    struct Asked {
        std::shared_ptr<CacheTask> task;
        StorageEventKind kind;
        std::vector<Path> paths;
    };

    // Constant after construction.
    const std::shared_ptr<const platform::Services> m_services = platform::services();
    const std::shared_ptr<CacheUpdateInfo> m_info;
    std::shared_ptr<Executor> m_executor;

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
    boost::signals2::scoped_connection m_finishedConnection;
    boost::signals2::scoped_connection m_cacheConnection;

    std::set<Path> m_unfresh;      ///< to be refreshed; on the strand only
    std::vector<Path> m_postponed; ///< bare folders to be watched or not; on the strand only
    std::atomic<bool> m_hasPostponed{false};

    std::shared_ptr<DependencyWatches> m_dependencies; ///< guarded by m_lock

    std::mutex m_nestedMutex; ///< no other lock is taken while it is held
    std::set<Path> m_nested, m_withForbidden;

    std::mutex m_askedMutex;    ///< not held together with m_lock
    std::vector<Asked> m_asked; ///< as they were asked for; guarded by m_askedMutex
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

std::exception_ptr VFSFileChangeCacheUpdater::rootRefusal() const {
    QUENDO_TRACE_SCOPE();
    return m_impl->rootRefusal();
}

} // namespace quendo
