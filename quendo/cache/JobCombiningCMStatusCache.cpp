#include "quendo/cache/JobCombiningCMStatusCache.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/CacheBarrier.h"
#include "quendo/cache/FileCacheUpdateJob.h"
#include "quendo/cache/FolderCacheUpdateJob.h"
#include "quendo/cache/JobQueingCacheUpdater.h"
#include "quendo/cache/NoOpTask.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/ReentrantReadWriteLock.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace quendo {
namespace {

template <class Pointer>
Pointer notNull(Pointer pointer, const char* what) {
    if (pointer == nullptr)
        throw exception::InvalidArgumentError(what);
    return pointer;
}

/// Calls `visit` with each part of `text`, until it answers true.
template <class Visit>
bool anyPart(std::u16string_view text, Visit&& visit) {
    for (std::size_t start = 0; start <= text.size();) {
        const auto end = std::min(text.find(u'/', start), text.size());
        if (visit(text.substr(start, end - start)))
            return true;
        start = end + 1;
    }
    return false;
}

bool isModified(LocalStatus status) noexcept {
    return status >= LocalStatus::Modified && status <= LocalStatus::Conflicted;
}

} // namespace

struct JobCombiningCMStatusCache::Impl {
    // Constant after construction.
    const std::shared_ptr<CMAdapter> adapter;
    const Path root = adapter->getRootFolder();
    const std::vector<UString> forbiddenNames = adapter->getForbiddenFileNames();
    /// Where the adapter's queries run. Not asked for later: a thread that waits may have others.
    const std::shared_ptr<const Executor> sourceControl = getSourceControlExecutor();

    // Own synchronisation.
    const std::shared_ptr<CacheState> state = makeState();
    JobQueingCacheUpdater updater;
    std::atomic<bool> folderStatusFlag{false};

    mutable std::mutex pendingMutex;                      ///< never held together with another
    std::shared_ptr<const PendingChanges> pendingChanges; ///< guarded by pendingMutex

    ReentrantReadWriteLock loadedLock;      ///< never held together with another
    std::unordered_set<Path> loadedFolders; ///< guarded by loadedLock

    Impl(std::shared_ptr<CMAdapter> wrapped, std::shared_ptr<CMApplicationInteractor> interactor)
        : adapter(notNull(std::move(wrapped), "a status cache needs an adapter")),
          updater(state, adapter,
                  notNull(std::move(interactor), "a status cache needs an interactor")) {}

    std::shared_ptr<CacheState> makeState() const {
        auto made = std::make_shared<CacheState>();
        made->books.ledger = std::make_shared<RefreshLedger>(root, platform::services()->files);
        return made;
    }

    std::optional<Staleness> pendingStaleness(const std::optional<Path>& path) const {
        const auto pending = [&] {
            const std::lock_guard lock(pendingMutex);
            return pendingChanges;
        }();
        const auto since = pending != nullptr ? (*pending)(path) : std::nullopt;
        if (!since)
            return {};
        Staleness result;
        result.since = *since;
        result.reason = RefreshReason::FileEvent;
        return result;
    }

    bool isForbidden(std::u16string_view name) const {
        return std::ranges::find(forbiddenNames, name) != forbiddenNames.end();
    }

    bool isLoaded(const Path& folder) const {
        for (Path each = folder; !each.empty(); each = each.parentPath()) {
            if (loadedFolders.contains(each))
                return true;
        }
        return false;
    }

    /// A request with a new task.
    RefreshRequest makeRequest(bool isRequired) const {
        RefreshRequest request;
        request.folderStatusFlag = folderStatusFlag.load();
        request.isRequired = isRequired || request.reason == RefreshReason::OwnOperation;
        request.barrier = std::make_shared<CacheBarrier>(updater.executor(), sourceControl);
        return request;
    }

    std::unique_ptr<CacheUpdateJob> makeFolderJob(RefreshRequest request) const {
        state->books.statistics->noteRequest(request.reason);
        return std::make_unique<FolderCacheUpdateJob>(std::move(request), state->books);
    }

    std::shared_ptr<CacheTask> refreshFiles(const JobCombiningCMStatusCache& cache,
                                            const std::vector<Path>& files, bool isRequired) {
        auto request = makeRequest(isRequired);
        for (const auto& file : files) {
            if (!cache.isFileIgnored(file))
                request.files.push_back(file);
        }
        if (request.files.empty())
            return std::make_shared<NoOpTask>();
        auto barrier = request.barrier;
        state->books.statistics->noteRequest(request.reason);
        updater.submit(std::make_unique<FileCacheUpdateJob>(std::move(request), state->books));
        return barrier;
    }

    template <class Wanted>
    std::vector<Path> pathsWhere(Wanted&& wanted) const {
        std::vector<Path> result;
        state->files.version().forEach([&](const Path& path, const FileState& fileState) {
            if (wanted(fileState))
                result.push_back(path);
        });
        return result;
    }
};

JobCombiningCMStatusCache::JobCombiningCMStatusCache(
    std::shared_ptr<CMAdapter> adapter, std::shared_ptr<CMApplicationInteractor> interactor)
    : m_impl(std::make_unique<Impl>(std::move(adapter), std::move(interactor))) {}

JobCombiningCMStatusCache::~JobCombiningCMStatusCache() {
    auto& signals = *m_impl->state->books.signals;
    signals.cacheChanged.disconnect_all_slots();
    signals.tasksStarted.disconnect_all_slots();
    signals.tasksFinished.disconnect_all_slots();
    signals.changes.disconnect_all_slots();
    signals.foldersChanged.disconnect_all_slots();
    signals.stalenessChanged.disconnect_all_slots();
}

bool JobCombiningCMStatusCache::isFileIgnored(const Path& file) const {
    QUENDO_LOG(Severity::Detail) << " file.string()=" << file;
    const auto& root = m_impl->root;
    const auto isForbidden = [&](std::u16string_view name) { return m_impl->isForbidden(name); };
    // Nearly all files are plainly below the root: then nothing need be made to look at the names.
    if (file.isBelow(root)) {
        const auto below = file.string().substr(root.string().size());
        if (!anyPart(below, [](auto name) { return name == u"." || name == u".."; }))
            return anyPart(below, isForbidden);
    }
    return anyPart(file.lexicallyRelative(root).string(), isForbidden);
}

boost::signals2::connection
JobCombiningCMStatusCache::connectCacheChanged(const ChangedSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->state->books.signals->cacheChanged.connect(slot);
}

boost::signals2::connection JobCombiningCMStatusCache::connectTasksStarted(const TasksSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->state->books.signals->tasksStarted.connect(slot);
}

boost::signals2::connection JobCombiningCMStatusCache::connectTasksFinished(const TasksSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->state->books.signals->tasksFinished.connect(slot);
}

std::shared_ptr<CacheTask> JobCombiningCMStatusCache::refreshFolder(const Path& folder) {
    QUENDO_TRACE_SCOPE();
    if (isFileIgnored(folder))
        return std::make_shared<NoOpTask>();
    auto request = m_impl->makeRequest(false);
    request.folder = folder;
    request.folderStatusFlag = getFolderStatusFlag();
    auto barrier = request.barrier;
    m_impl->updater.submit(m_impl->makeFolderJob(std::move(request)));
    return barrier;
}

std::shared_ptr<CacheTask> JobCombiningCMStatusCache::loadFolder(const Path& folder) {
    QUENDO_TRACE_SCOPE();
    {
        const auto hold = m_impl->loadedLock.read();
        if (m_impl->isLoaded(folder))
            return std::make_shared<NoOpTask>();
    }
    {
        const auto hold = m_impl->loadedLock.write();
        if (m_impl->isLoaded(folder))
            return std::make_shared<NoOpTask>();
        m_impl->loadedFolders.insert(folder);
    }
    return refreshFolder(folder);
}

std::shared_ptr<CacheTask>
JobCombiningCMStatusCache::refreshCMStatuses(const std::vector<Path>& files) {
    QUENDO_TRACE_SCOPE();
    QUENDO_LOG(Severity::Detail) << " files.size()=" << files.size();
    return m_impl->refreshFiles(*this, files, false);
}

void JobCombiningCMStatusCache::refreshAll() {
    QUENDO_TRACE_SCOPE();
    refreshFolder(m_impl->root)->wait();
}

void JobCombiningCMStatusCache::setFolderStatusFlag(bool flag) {
    QUENDO_TRACE_SCOPE();
    m_impl->folderStatusFlag.store(flag);
}

bool JobCombiningCMStatusCache::getFolderStatusFlag() const {
    return m_impl->folderStatusFlag.load();
}

std::optional<FileState> JobCombiningCMStatusCache::getCachedStatus(const Path& path) const {
    return m_impl->state->files.find(path);
}

std::vector<Path> JobCombiningCMStatusCache::getModifiedFiles() const {
    return m_impl->pathsWhere([](const FileState& state) { return isModified(state.getState()); });
}

std::vector<Path> JobCombiningCMStatusCache::getFilesWithStatus(LocalStatus status) const {
    return m_impl->pathsWhere([&](const FileState& state) { return state.getState() == status; });
}

std::vector<Path> JobCombiningCMStatusCache::getCachedFiles() const {
    auto result = m_impl->pathsWhere([](const FileState&) { return true; });
    // Who watches the folders of what is listed takes the first one's without a further look.
    if (!result.empty() && result.front() == m_impl->root)
        std::swap(result.front(), result.back());
    return result;
}

void JobCombiningCMStatusCache::stop() {
    QUENDO_TRACE_SCOPE();
    m_impl->updater.stop();
}

boost::signals2::connection
JobCombiningCMStatusCache::connectChanges(const CMStatusCacheChanges::Slot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->state->books.signals->changes.connect(slot);
}

StatusListing JobCombiningCMStatusCache::listStatuses(const Path& folder) const {
    const auto version = m_impl->state->files.version();
    StatusListing result;
    result.version = version.number();
    version.forEachIn(folder, [&](const Path& path, const FileState& state) {
        result.states.emplace_back(path, state);
    });
    return result;
}

FolderSummary JobCombiningCMStatusCache::getFolderSummary(const Path& folder) const {
    return m_impl->state->files.version().summaryOf(folder);
}

std::vector<Path> JobCombiningCMStatusCache::getFolders() const {
    return m_impl->state->files.version().folders();
}

std::uint64_t JobCombiningCMStatusCache::getFolderSetVersion() const {
    return m_impl->state->files.version().folderSetNumber();
}

boost::signals2::connection
JobCombiningCMStatusCache::connectFoldersChanged(const CMStatusCacheFolders::Slot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->state->books.signals->foldersChanged.connect(slot);
}

Freshness JobCombiningCMStatusCache::getFreshness(const Path& path) const {
    // The changes first: what becomes a request in between is told twice and not never.
    const auto pending = m_impl->pendingStaleness(path);
    auto result = m_impl->updater.getFreshness(path);
    if (pending) {
        if (result.refresh == Freshness::Refresh::None)
            result.refresh = Freshness::Refresh::Waiting;
        include(result.staleness, *pending);
    }
    return result;
}

std::optional<Staleness> JobCombiningCMStatusCache::getStaleness() const {
    const auto pending = m_impl->pendingStaleness(std::nullopt);
    auto result = m_impl->updater.getStaleness();
    if (pending)
        include(result, *pending);
    return result;
}

void JobCombiningCMStatusCache::setPendingChanges(PendingChanges pending) {
    const std::lock_guard lock(m_impl->pendingMutex);
    m_impl->pendingChanges = std::make_shared<const PendingChanges>(std::move(pending));
}

boost::signals2::connection
JobCombiningCMStatusCache::connectStalenessChanged(const StalenessSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->state->books.signals->stalenessChanged.connect(slot);
}

std::shared_ptr<CacheTask> JobCombiningCMStatusCache::requireFreshFile(const Path& file) {
    QUENDO_TRACE_SCOPE();
    return m_impl->refreshFiles(*this, {file}, true);
}

std::shared_ptr<CacheTask> JobCombiningCMStatusCache::requireFreshFolder(const Path& folder) {
    QUENDO_TRACE_SCOPE();
    if (isFileIgnored(folder))
        return std::make_shared<NoOpTask>();
    auto request = m_impl->makeRequest(true);
    request.folder = folder;
    auto barrier = request.barrier;
    const bool flag = request.folderStatusFlag;
    auto job = m_impl->makeFolderJob(std::move(request));
    if (!m_impl->updater.join(job, folder, flag))
        m_impl->updater.submit(std::move(job));
    return barrier;
}

CacheStatistics JobCombiningCMStatusCache::getStatistics() const {
    return m_impl->updater.getStatistics();
}

std::shared_ptr<CMStatusCache>
createJobCombiningCache(std::shared_ptr<CMAdapter> adapter,
                        std::shared_ptr<CMApplicationInteractor> interactor) {
    return std::make_shared<JobCombiningCMStatusCache>(std::move(adapter), std::move(interactor));
}

} // namespace quendo
