#pragma once

#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/RefreshRequest.h"
#include "quendo/platform/Path.h"

#include <chrono>
#include <cstddef>
#include <exception>
#include <list>
#include <optional>

namespace quendo {

/// Paths that are retried together, in one query: files, or one folder.
struct RetrySet {
    using TimePoint = RefreshRequest::TimePoint;

    bool isOfFolder = false;
    PendingPaths paths;
    // Of the newest query:
    Staleness::Cause cause = Staleness::Cause::Failed;
    std::exception_ptr failure;
    TimePoint::duration duration{0};
    TimePoint triedAt{};
    // Of the plan:
    TimePoint failedFirst{};
    TimePoint due{};
    std::chrono::milliseconds delay{0}; ///< of the newest retry
    int retries = 0;
    bool hasOwnSchedule = false; ///< no success of another query brings it forward
};

/// A list, so that sets go from jobs to the plan and back without a failure.
using RetrySets = std::list<RetrySet>;

/// Adds what is known about a part to what is known about the whole: what went wrong determines the
/// cause, and of two of a kind the older one.
void include(std::optional<Staleness>& whole, const Staleness& part) noexcept;

/// What a cache retries, and when. RetryPlan.cpp tells the rules.
///
/// Thread-compatible: guarded by the RefreshLedger. What is not said to throw does not fail.
class RetryPlan {
public:
    using TimePoint = RetrySet::TimePoint;

    static constexpr TimePoint atOnce{}; ///< a due time that is always reached
    static constexpr std::chrono::milliseconds firstDelay{250};
    static constexpr std::chrono::milliseconds longestDelay{30'000};
    static constexpr std::size_t mostFiles = 10'000; ///< more are represented by folders
    static constexpr std::size_t mostFolders = 64;   ///< more are represented by outer ones
    static constexpr std::size_t mostFileSets = 64;  ///< no set is split beyond that
    static constexpr std::size_t commonFolderLimit = 16;

    /// Takes sets whose query was not answered: new ones, or one from takeDue().
    /// @param root of the cache, for the folders that represent paths
    void add(RetrySets& sets, TimePoint now, const Path& root) noexcept;

    /// A query has succeeded: the adapter works.
    void noteSuccess(TimePoint now) noexcept;
    void answerFiles(const PendingPaths& files) noexcept;
    void answerFolder(const Path& folder) noexcept;

    /// Moves a set that is due at `reached` to `taken`. @return whether there was one
    bool takeDue(TimePoint reached, RetrySets& taken) noexcept;

    /// When takeDue() will have one.
    std::optional<TimePoint> next() const noexcept;

    bool empty() const noexcept { return m_sets.empty(); }
    std::size_t pathCount() const noexcept;

    /// The newest set that holds `path`, or a folder around it.
    std::optional<Staleness> find(const Path& path) const;
    /// Of the path that was requested first.
    std::optional<Staleness> oldest() noexcept;

private:
    void addNew(RetrySets& set, TimePoint now) noexcept;
    void addRetried(RetrySets& set, TimePoint now) noexcept;
    void split(RetrySet& set, TimePoint now, bool hasOwnSchedule) noexcept;
    void limit(bool folders, std::size_t most, const Path& root) noexcept;
    TimePoint dueOf(const RetrySet& set) const noexcept;

    RetrySets m_sets;
    std::optional<TimePoint> m_succeededAt; ///< the newest success
    // While the adapter seems to fail:
    bool m_isFailing = false;
    TimePoint m_probeAt{};
    std::chrono::milliseconds m_probeDelay{0};
    int m_probes = 0; ///< that failed since m_probeAt was moved last
};

} // namespace quendo
