#pragma once

#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/platform/Path.h"

#include <chrono>
#include <cstddef>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace quendo {

class CacheBarrier;

/// What one call of a refresh operation asked for: files, or one folder.
struct RefreshRequest {
    std::vector<Path> files;
    Path folder; ///< of a folder request, which has no files
    bool folderStatusFlag = false;
    std::shared_ptr<CacheBarrier> barrier; ///< null when nobody waits for it any more
    std::exception_ptr failure;            ///< why it is owed, when it failed

    bool isOfFolder() const noexcept { return files.empty(); }
    bool covers(const Path& path) const noexcept;
};

/// A list, so that requests go from job to ledger and back without a failure.
using RefreshRequests = std::list<RefreshRequest>;

/// The books about what was asked for, what is being asked and what was answered.
///
/// A refresh that failed, or was skipped because a request combined with it was cancelled, leaves
/// its paths stale though somebody wanted to know: a file event asks once. So such requests, but
/// for those that were cancelled themselves, are owed: the next job of their kind asks for them
/// too, and any answer that covers a path settles what is owed for it.
///
/// Threads: any, its own lock. start() to skip() belong to the one job that runs.
class RefreshLedger {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Takes over the requests of the job that runs now.
    void start(RefreshRequests& requests) noexcept;

    /// Those requests; constant until the next call of one of these operations.
    const RefreshRequests& running() const noexcept { return m_running; }

    /// They were answered by a query that started at `queryStart`.
    void succeed(TimePoint queryStart) noexcept;
    void fail(const std::exception_ptr& failure) noexcept;
    void skip() noexcept;

    /// How often retry() has to be called to reach all that is owed of one kind.
    std::size_t owedRounds(bool folders) const noexcept;

    /// Makes the oldest owed folder request, or all owed file requests together, the running one.
    /// @return false when nothing is owed
    bool retry(bool folders) noexcept;

    /// All of Freshness but what waits in a queue.
    Freshness getFreshness(const Path& path) const;

private:
    void noteAnswer(const RefreshRequest& request, TimePoint queryStart);
    void forgetOldest();

    mutable std::mutex m_mutex;
    // All below is guarded by m_mutex; the running job alone changes m_running, and reads it
    // without the lock.
    RefreshRequests m_running;
    RefreshRequests m_owedFiles;               ///< oldest first
    RefreshRequests m_owedFolders;             ///< oldest first
    std::map<Path, TimePoint> m_answeredFiles; ///< since the last answer for a folder around each
    std::map<Path, TimePoint> m_answeredFolders;
};

} // namespace quendo
