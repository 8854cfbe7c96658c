#pragma once

#include "quendo/cache/RefreshReason.h"
#include "quendo/platform/Path.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace quendo {

class CacheBarrier;

/// What one call of a refresh operation requests: files, or one folder.
struct RefreshRequest {
    using TimePoint = std::chrono::steady_clock::time_point;

    std::vector<Path> files;
    Path folder;                   ///< of a folder request, which has no files
    bool folderStatusFlag = false; ///< of the cache
    bool isRequired = false;       ///< its task succeeds only when a query has answered it
    bool isCarriedOver = false;    ///< its job ends without an answer, and its task goes on
    int carriedOver = 0;           ///< how often that was so
    RefreshReason reason = RefreshReasonScope::current();
    TimePoint since = std::chrono::steady_clock::now();
    std::shared_ptr<CacheBarrier> barrier; ///< its task; null when nobody holds that any more

    bool isOfFolder() const noexcept { return files.empty(); }
};

/// A list, so that requests go from job to job without a failure.
using RefreshRequests = std::list<RefreshRequest>;

/// One path that is to be queried.
struct PendingPath {
    RefreshRequest::TimePoint since; ///< of the first request
    RefreshReason reason = RefreshReason::Client;
    bool folderStatusFlag = false;
    /// Somebody who does not hold a task wants it: it is retried whatever becomes of the tasks.
    bool isWanted = false;
    bool isCarriedOver = false; ///< used while a job ends
    std::uint64_t order = 0;    ///< of the first request, among those of one job
};

/// Paths that are to be queried, each once, all of them files or all of them folders. What is not
/// said to throw does not fail: nodes move from map to map.
///
/// Thread-compatible.
class PendingPaths {
public:
    using Map = std::map<Path, PendingPath>;

    PendingPaths() = default;
    /// @throws std::bad_alloc
    explicit PendingPaths(const RefreshRequest& request);

    /// Takes over all of `other`. Of a path that both have, the first request determines the time
    /// and the order, and the last one the flag.
    void absorb(PendingPaths& other) noexcept;

    const Map& map() const noexcept { return m_paths; }
    std::size_t size() const noexcept { return m_paths.size(); }
    bool empty() const noexcept { return m_paths.empty(); }

    const PendingPath* find(const Path& path) const noexcept;
    /// Of folders: the first request for one that is `path` or lies above it.
    /// @throws std::bad_alloc where there are many
    const PendingPath* findAround(const Path& path) const;
    /// The one that was requested first; null when there is none. Looks at each after a removal.
    const PendingPath* oldest() noexcept;

    /// In the order of the requests. @throws std::bad_alloc
    std::vector<Path> inOrder() const;

    void markWanted(const Path& path) noexcept;
    void markCarriedOver(const Path& path) noexcept;
    void erase(const Path& path) noexcept;
    /// Those that are `folder` or lie below it.
    void eraseInside(const Path& folder) noexcept;

    /// Moves what `choose` is true for to `target`; `choose` must not throw.
    template <class Choose>
    void moveIf(PendingPaths& target, Choose&& choose) noexcept {
        for (auto at = m_paths.begin(); at != m_paths.end();) {
            const auto each = at++;
            if (choose(each->first, each->second))
                target.insert(m_paths.extract(each), target.m_nextOrder++);
        }
        m_oldest.reset();
    }

private:
    friend PendingPaths commonFolders(const PendingPaths&, const Path&, std::size_t);
    void insert(Map::node_type node, std::uint64_t order) noexcept;

    Map m_paths;
    std::uint64_t m_nextOrder = 0;
    std::optional<PendingPath> m_oldest; ///< empty when it is not known
};

bool isInside(const Path& path, const Path& folder) noexcept;

/// Folders that together hold all of `paths`, at most `most` of them: the deepest give way to their
/// parents until that is so. What does not lie below `root` is represented by `root`. Their times,
/// reasons and flags are those of the oldest and the most demanding path. @throws std::bad_alloc
PendingPaths commonFolders(const PendingPaths& paths, const Path& root, std::size_t most);

} // namespace quendo
