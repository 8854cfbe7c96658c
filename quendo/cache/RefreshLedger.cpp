#include "quendo/cache/RefreshLedger.h"

#include "quendo/cache/CacheBarrier.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace quendo {
namespace {

// Beyond this the records of single files would weigh more than what they tell is worth: 128 bytes
// each, 8 MB.
constexpr std::size_t mostRecords = 65536;

/// What lies in `folder` shares its text as a beginning, so it stands together but for neighbours
/// such as "folder-2".
template <class Records>
void eraseInside(Records& records, const Path& folder) {
    auto at = records.lower_bound(folder);
    while (at != records.end() && at->first.string().starts_with(folder.string()))
        at = isInside(at->first, folder) ? records.erase(at) : std::next(at);
}

void forgetOldest(std::map<Path, RefreshLedger::TimePoint>& records) {
    if (records.size() <= mostRecords)
        return;
    std::vector<RefreshLedger::TimePoint> times;
    times.reserve(records.size());
    for (const auto& [path, time] : records)
        times.push_back(time);
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::ranges::nth_element(times, middle);
    std::erase_if(records, [&](const auto& record) { return record.second <= *middle; });
}

void showNextRetry(Staleness& staleness, bool isRetried) {
    if (!isRetried)
        staleness.nextRetry.reset();
    else if (staleness.nextRetry == RetryPlan::atOnce)
        staleness.nextRetry = std::chrono::steady_clock::now();
}

} // namespace

RefreshLedger::RefreshLedger(Path root, std::shared_ptr<const platform::FileUtilities> files)
    : m_root(std::move(root)), m_files(std::move(files)) {}

/// Whether the root was there once and is not now. Looks at the disk. A root that cannot be reached
/// for another reason, such as missing permissions, is not gone: nothing need tell when it can be.
bool RefreshLedger::isRootGone() noexcept {
    try {
        if (m_files == nullptr)
            return false;
        const bool isThere = m_files->isDirectory(m_root);
        m_hasSeenRoot = m_hasSeenRoot || isThere;
        if (!m_hasSeenRoot || isThere)
            return false;
        struct stat entry;
        return ::stat(m_root.toNative().c_str(), &entry) == 0 || errno == ENOENT ||
               errno == ENOTDIR;
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        return false;
    }
}

void RefreshLedger::start(PendingPaths& paths, RetrySets& sets) noexcept {
    const std::lock_guard lock(m_mutex);
    m_running.absorb(paths);
    m_runningSets.splice(m_runningSets.end(), sets);
    m_isRunningFolders = !m_runningSets.empty() && m_runningSets.front().isOfFolder;
}

void RefreshLedger::succeed(TimePoint queryStart) noexcept {
    if (!std::exchange(m_hasLookedForRoot, true))
        isRootGone();  // an adapter need not work on the disk at all
    PendingPaths done; // destroyed without the lock
    RetrySets sets;
    const std::lock_guard lock(m_mutex);
    try {
        noteAnswer(queryStart);
    } catch (...) {
        // Without the record the answer is taken for older than it is, and queried again.
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
    m_isRootGone = false;
    m_plan.noteSuccess(std::chrono::steady_clock::now());
    std::swap(done, m_running);
    sets.swap(m_runningSets);
}

void RefreshLedger::noteAnswer(TimePoint queryStart) {
    if (m_isRunningFolders) {
        Path outer; // what lies in a folder comes after it
        for (const auto& [folder, pending] : m_running.map()) {
            if (!outer.empty() && folder.isBelow(outer))
                continue;
            outer = folder;
            m_plan.answerFolder(folder);
            eraseInside(m_answeredFiles, folder);
            eraseInside(m_answeredFolders, folder);
            m_answeredFolders[folder] = queryStart;
        }
        forgetOldest(m_answeredFolders);
        return;
    }
    if (!m_plan.empty())
        m_plan.answerFiles(m_running);
    for (const auto& [file, pending] : m_running.map())
        m_answeredFiles[file] = queryStart;
    forgetOldest(m_answeredFiles);
}

void RefreshLedger::giveUp(const RefreshRequests& requests, Staleness::Cause cause,
                           const std::exception_ptr& failure, TimePoint::duration duration,
                           PendingPaths& carriedOver, RetrySets& sets) noexcept {
    const bool isGone = cause == Staleness::Cause::Failed && isRootGone();
    PendingPaths dropped; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    if (m_running.empty())
        return;
    for (const auto& request : requests) {
        const bool isCancelled = request.barrier != nullptr && !request.barrier->isActive();
        const auto mark = [&](const Path& path) {
            if (request.isCarriedOver)
                m_running.markCarriedOver(path);
            else if (!isCancelled)
                m_running.markWanted(path);
        };
        if (request.isOfFolder())
            mark(request.folder);
        for (const auto& file : request.files)
            mark(file);
    }
    m_running.moveIf(carriedOver, [](const Path&, auto& path) {
        return std::exchange(path.isCarriedOver, false);
    });
    m_running.moveIf(dropped, [](const Path&, const auto& path) { return !path.isWanted; });
    RetrySets given;
    while (!m_running.empty() && !m_runningSets.empty()) {
        given.splice(given.end(), m_runningSets, m_runningSets.begin());
        auto& set = given.back();
        set.isOfFolder = m_isRunningFolders;
        set.cause = cause;
        set.failure = failure;
        set.duration = duration;
        bool isFull = false;
        m_running.moveIf(set.paths, [&](const auto&...) {
            return !m_isRunningFolders || !std::exchange(isFull, true);
        });
    }
    sets.splice(sets.end(), m_runningSets);
    if (cause == Staleness::Cause::Failed)
        m_isRootGone = isGone;
    m_plan.add(given, std::chrono::steady_clock::now(), m_root);
}

bool RefreshLedger::takeDue(TimePoint reached, RetrySets& taken) noexcept {
    const std::lock_guard lock(m_mutex);
    return !m_isRootGone && !m_isStopped && m_plan.takeDue(reached, taken);
}

void RefreshLedger::putBack(RetrySets& taken) noexcept {
    const std::lock_guard lock(m_mutex);
    m_plan.add(taken, std::chrono::steady_clock::now(), m_root);
}

std::optional<RefreshLedger::TimePoint> RefreshLedger::nextRetryLocked() const noexcept {
    return m_isRootGone || m_isStopped ? std::nullopt : m_plan.next();
}

std::optional<RefreshLedger::TimePoint> RefreshLedger::nextRetry() const noexcept {
    const std::lock_guard lock(m_mutex);
    return nextRetryLocked();
}

std::size_t RefreshLedger::retryPathCount() const noexcept {
    const std::lock_guard lock(m_mutex);
    return m_plan.pathCount();
}

void RefreshLedger::stop() noexcept {
    const std::lock_guard lock(m_mutex);
    m_isStopped = true;
}

/// With the lock held. A retry that runs tells why it is one.
Staleness RefreshLedger::stalenessOfRunning(const PendingPath& path) const noexcept {
    Staleness result;
    result.since = path.since;
    result.reason = path.reason;
    if (!m_runningSets.empty() && m_runningSets.front().retries != 0) {
        result.cause = m_runningSets.front().cause;
        result.failure = m_runningSets.front().failure;
    }
    return result;
}

Freshness RefreshLedger::getFreshness(const Path& path) const {
    Freshness result;
    const auto note = [&](const std::map<Path, TimePoint>& records, const Path& key) {
        if (const auto found = records.find(key);
            found != records.end() && (!result.answeredAt || *result.answeredAt < found->second))
            result.answeredAt = found->second;
    };
    const std::lock_guard lock(m_mutex);
    note(m_answeredFiles, path);
    for (Path folder = path; !folder.empty(); folder = folder.parentPath())
        note(m_answeredFolders, folder);
    if ((result.staleness = m_plan.find(path))) {
        result.refresh = Freshness::Refresh::ToBeRetried;
        result.failure = result.staleness->failure;
        showNextRetry(*result.staleness, nextRetryLocked().has_value());
    }
    if (const auto* running = m_running.findAround(path)) {
        result.refresh = Freshness::Refresh::Running;
        const auto staleness = stalenessOfRunning(*running);
        if (result.failure == nullptr)
            result.failure = staleness.failure;
        include(result.staleness, staleness);
    }
    return result;
}

std::optional<Staleness> RefreshLedger::getStaleness() const {
    const std::lock_guard lock(m_mutex);
    auto result = m_plan.oldest();
    if (result)
        showNextRetry(*result, nextRetryLocked().has_value());
    if (const auto* running = m_running.oldest())
        include(result, stalenessOfRunning(*running));
    return result;
}

std::optional<std::optional<Staleness>> RefreshLedger::takeRetryChange() {
    const std::lock_guard lock(m_mutex);
    auto now = m_plan.oldest();
    if (now)
        now->nextRetry = nextRetryLocked();
    if (now && now->nextRetry == RetryPlan::atOnce)
        return std::nullopt;
    const auto isSame = [&] {
        return now.has_value() == m_toldRetries.has_value() &&
               (!now || (now->since == m_toldRetries->since && now->cause == m_toldRetries->cause &&
                         now->failure == m_toldRetries->failure &&
                         now->nextRetry == m_toldRetries->nextRetry));
    };
    if (isSame())
        return std::nullopt;
    m_toldRetries = now;
    return now;
}

} // namespace quendo
