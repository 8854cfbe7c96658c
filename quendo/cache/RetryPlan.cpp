#include "quendo/cache/RetryPlan.h"

#include "quendo/platform/Logging.h"

#include <algorithm>
#include <utility>

// When what was not answered is queried again.
//
// Problem. An event requests a path once. If its query fails, or is skipped with a request that was
// cancelled, nothing else requests the path, and the cached state is wrong for good. The causes
// differ: git fails for every path for a second, or one path makes every query fail that names it.
//
// Invariant. A path is in the plan from the end of a query that did not answer it to the start of
// its retry, and again when that is not answered; it leaves the plan when any query answers it.
// Each path is there once.
//
// Sets. What failed together is retried together: one query for files, one for each folder. A
// retry never joins a request, so that a path that makes the adapter fail fails no request but
// its own.
//
// Has the adapter failed, or a path? Successes tell. A set that fails although another query has
// succeeded since the set's first failure has its own schedule: its delay grows by half with each
// retry, and half of its files each become a set that is retried soon, until the file that fails is
// alone. As long as no query has succeeded, the adapter seems to fail:
//
//   failure -> 250 ms -> probe fails -> 375 ms -> probe fails -> ... 30 s -> probe succeeds
//                                                                            -> all others now
//
// A probe is the set that was tried least recently. A set of files that fails as a probe is split
// as well, and the other half is tried at once: so one probe time costs two queries at most,
// however many sets there are, and one file that fails keeps no other waiting. A success merges the
// sets of files again.
//
// Activity. While requests are made their failures and successes tell more than the time that has
// passed. A new failure, or a success for a set with its own schedule, moves a far retry to two
// seconds from the last attempt, or to ten times that attempt's duration if that is later.
//
// Time. A due time is reached when the timer that was started for it comes, and not by looking at
// the clock: so a service for delayed tasks that a test steps decides about everything.
//
// Bounds. Files beyond `mostFiles`, and folders beyond `mostFolders`, are represented by their
// nearest common folders.
//
// Not guaranteed. Where more than `mostFileSets` files fail each by itself, other files that failed
// together with them may wait for one of these to succeed.

namespace quendo {
namespace {

using Cause = Staleness::Cause;
using std::chrono::milliseconds;

constexpr milliseconds activeDelay{2'000};

milliseconds grown(milliseconds delay) noexcept {
    return std::clamp(delay * 3 / 2, RetryPlan::firstDelay, RetryPlan::longestDelay);
}

/// When activity lets a set be retried whose own time is later.
RetrySet::TimePoint whenActive(const RetrySet& set) noexcept {
    return set.triedAt + std::max<RetrySet::TimePoint::duration>(activeDelay, 10 * set.duration);
}

Staleness stalenessOf(const RetrySet& set, const PendingPath& path) noexcept {
    Staleness result;
    result.since = path.since;
    result.reason = path.reason;
    result.cause = set.cause;
    result.failure = set.failure;
    return result;
}

/// A set without paths, due like `set` and with what is known about the queries for that.
RetrySet withHistoryOf(const RetrySet& set) {
    RetrySet result;
    result.cause = set.cause;
    result.failure = set.failure;
    result.duration = set.duration;
    result.triedAt = set.triedAt;
    result.failedFirst = set.failedFirst;
    result.due = set.due;
    return result;
}

} // namespace

void include(std::optional<Staleness>& whole, const Staleness& part) noexcept {
    if (!whole) {
        whole = part;
        return;
    }
    const auto earlier = [](const auto& a, const auto& b) {
        return a && b ? std::min(a, b) : a ? a : b;
    };
    const bool wasWrong = whole->cause != Cause::Requested;
    const bool isWrong = part.cause != Cause::Requested;
    const bool replaces = wasWrong == isWrong ? part.since < whole->since : isWrong;
    const auto since = std::min(whole->since, part.since);
    const auto next = earlier(whole->nextRetry, part.nextRetry);
    if (replaces)
        *whole = part;
    whole->since = since;
    whole->nextRetry = next;
}

void RetryPlan::add(RetrySets& sets, TimePoint now, const Path& root) noexcept {
    while (!sets.empty()) {
        RetrySets one;
        one.splice(one.end(), sets, sets.begin());
        if (one.front().paths.empty())
            continue;
        one.front().triedAt = now;
        if (one.front().retries == 0)
            addNew(one, now);
        else
            addRetried(one, now);
    }
    limit(false, mostFiles, root);
    limit(true, mostFolders, root);
}

void RetryPlan::addNew(RetrySets& one, TimePoint now) noexcept {
    auto& set = one.front();
    set.delay = firstDelay;
    set.due = now + firstDelay;
    set.failedFirst = now;
    if (set.cause == Cause::Failed) {
        const bool isProbed = m_isFailing && std::ranges::any_of(m_sets, [](const auto& known) {
                                  return !known.hasOwnSchedule;
                              });
        if (!isProbed) {
            m_isFailing = true;
            m_probeDelay = firstDelay;
            m_probeAt = now + firstDelay;
            m_probes = 0;
        } else if (m_probeAt > now + activeDelay) {
            m_probeAt = std::min(m_probeAt, std::max(now + activeDelay, whenActive(set)));
        }
    }
    // What is there already keeps its schedule, and is told why it failed last.
    for (auto& known : m_sets) {
        if (known.isOfFolder != set.isOfFolder)
            continue;
        PendingPaths again;
        set.paths.moveIf(again, [&](const Path& path, const auto&) {
            return known.paths.find(path) != nullptr;
        });
        if (again.empty())
            continue;
        known.paths.absorb(again);
        known.cause = set.cause;
        known.failure = set.failure;
    }
    if (set.paths.empty())
        return;
    if (!set.isOfFolder) {
        const auto fresh = std::ranges::find_if(m_sets, [&](const auto& known) {
            return !known.isOfFolder && known.retries == 0 && known.cause == set.cause;
        });
        if (fresh != m_sets.end()) {
            fresh->paths.absorb(set.paths);
            fresh->failure = set.failure;
            return;
        }
    }
    m_sets.splice(m_sets.end(), one);
}

void RetryPlan::addRetried(RetrySets& one, TimePoint now) noexcept {
    auto& set = one.front();
    set.delay = grown(set.delay);
    set.due = now + set.delay;
    m_sets.splice(m_sets.end(), one);
    if (set.cause == Cause::Interrupted)
        set.hasOwnSchedule = true;
    if (set.cause != Cause::Failed)
        return;
    if (m_succeededAt && *m_succeededAt > set.failedFirst) {
        set.hasOwnSchedule = true;
        split(set, now, true);
        return;
    }
    m_isFailing = true;
    split(set, now, false);
    const bool hasOthers = std::ranges::any_of(
        m_sets, [&](const auto& other) { return &other != &set && !other.hasOwnSchedule; });
    if (++m_probes < 2 && hasOthers) {
        m_probeAt = atOnce;
        return;
    }
    m_probes = 0;
    m_probeDelay = grown(m_probeDelay);
    m_probeAt = now + m_probeDelay;
}

/// Makes two sets of one. Fails for lack of memory only, and then nothing has changed.
void RetryPlan::split(RetrySet& set, TimePoint now, bool hasOwnSchedule) noexcept {
    const auto sets = std::ranges::count_if(m_sets, [](const auto& s) { return !s.isOfFolder; });
    if (set.isOfFolder || set.paths.size() < 2 || static_cast<std::size_t>(sets) >= mostFileSets)
        return;
    try {
        RetrySets half;
        auto& other = half.emplace_back(withHistoryOf(set));
        other.retries = set.retries;
        other.hasOwnSchedule = set.hasOwnSchedule;
        auto left = set.paths.size() / 2;
        set.paths.moveIf(other.paths, [&](const auto&...) { return left != 0 && left-- != 0; });
        if (hasOwnSchedule) {
            set.delay = other.delay = firstDelay;
            set.due = other.due = now + firstDelay;
        } else {
            other.delay = set.delay;
            other.due = atOnce;
        }
        m_sets.splice(m_sets.begin(), half);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

void RetryPlan::noteSuccess(TimePoint now) noexcept {
    m_isFailing = false;
    m_probes = 0;
    m_succeededAt = now;
    RetrySet* files = nullptr;
    for (auto at = m_sets.begin(); at != m_sets.end();) {
        auto& set = *at++;
        if (set.hasOwnSchedule) {
            set.due = std::min(set.due, whenActive(set));
            continue;
        }
        set.due = atOnce;
        if (set.isOfFolder)
            continue;
        if (files == nullptr) {
            files = &set;
            continue;
        }
        files->paths.absorb(set.paths);
        if (files->failure == nullptr) {
            files->cause = set.cause;
            files->failure = set.failure;
        }
        files->failedFirst = std::min(files->failedFirst, set.failedFirst);
    }
    m_sets.remove_if([](const auto& set) { return set.paths.empty(); });
}

void RetryPlan::answerFiles(const PendingPaths& files) noexcept {
    for (auto at = m_sets.begin(); at != m_sets.end();) {
        const auto each = at++;
        if (each->isOfFolder)
            continue;
        for (const auto& [file, pending] : files.map())
            each->paths.erase(file);
        if (each->paths.empty())
            m_sets.erase(each);
    }
}

void RetryPlan::answerFolder(const Path& folder) noexcept {
    for (auto& set : m_sets)
        set.paths.eraseInside(folder);
    m_sets.remove_if([](const auto& set) { return set.paths.empty(); });
}

RetryPlan::TimePoint RetryPlan::dueOf(const RetrySet& set) const noexcept {
    return m_isFailing && !set.hasOwnSchedule ? m_probeAt : set.due;
}

bool RetryPlan::takeDue(TimePoint reached, RetrySets& taken) noexcept {
    auto chosen = m_sets.end();
    for (auto at = m_sets.begin(); at != m_sets.end(); ++at) {
        if (dueOf(*at) <= reached && (chosen == m_sets.end() || at->triedAt < chosen->triedAt))
            chosen = at;
    }
    if (chosen == m_sets.end())
        return false;
    ++chosen->retries;
    taken.splice(taken.end(), m_sets, chosen);
    return true;
}

std::optional<RetryPlan::TimePoint> RetryPlan::next() const noexcept {
    std::optional<TimePoint> result;
    for (const auto& set : m_sets)
        result = std::min(result.value_or(dueOf(set)), dueOf(set));
    return result;
}

std::size_t RetryPlan::pathCount() const noexcept {
    std::size_t count = 0;
    for (const auto& set : m_sets)
        count += set.paths.size();
    return count;
}

std::optional<Staleness> RetryPlan::find(const Path& path) const {
    std::optional<Staleness> result;
    TimePoint triedAt{};
    for (const auto& set : m_sets) {
        // Around: a path that was requested as a file may have been a folder.
        const auto* found = set.paths.findAround(path);
        if (found == nullptr)
            continue;
        const auto due = dueOf(set);
        const auto since = std::min(result ? result->since : found->since, found->since);
        const auto next = std::min(result ? *result->nextRetry : due, due);
        if (!result || set.triedAt >= triedAt) {
            result = stalenessOf(set, *found);
            triedAt = set.triedAt;
        }
        result->since = since;
        result->nextRetry = next;
    }
    return result;
}

std::optional<Staleness> RetryPlan::oldest() noexcept {
    std::optional<Staleness> result;
    for (auto& set : m_sets) {
        if (const auto* path = set.paths.oldest(); !result || path->since < result->since)
            result = stalenessOf(set, *path);
    }
    if (result)
        result->nextRetry = next();
    return result;
}

/// Lets common folders represent the files, or the folders, when there are more than `most`.
void RetryPlan::limit(bool folders, std::size_t most, const Path& root) noexcept {
    std::size_t count = 0;
    for (const auto& set : m_sets)
        count += set.isOfFolder == folders ? set.paths.size() : 0;
    if (count <= most)
        return;
    try {
        // Copies: without memory for them, everything stays as it is.
        PendingPaths all;
        RetrySet newest;
        for (const auto& set : m_sets) {
            if (set.isOfFolder != folders)
                continue;
            PendingPaths copy(set.paths);
            all.absorb(copy);
            if (set.triedAt >= newest.triedAt)
                newest = withHistoryOf(set);
        }
        auto common = commonFolders(all, root, commonFolderLimit);
        RetrySets sets(common.size());
        for (auto& set : sets) {
            set = newest;
            set.isOfFolder = true;
            bool isTaken = false;
            common.moveIf(set.paths, [&](const auto&...) { return !std::exchange(isTaken, true); });
        }
        // What they cover leaves the plan: the folders' answers answer it.
        for (const auto& set : sets)
            answerFolder(set.paths.map().begin()->first);
        m_sets.remove_if([&](const auto& set) { return set.isOfFolder == folders; });
        m_sets.splice(m_sets.end(), sets);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

} // namespace quendo
