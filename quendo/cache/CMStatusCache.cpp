#include "quendo/cache/CMStatusCache.h"

#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"

namespace quendo {

CMStatusCache::~CMStatusCache() = default;
CMStatusCacheChanges::~CMStatusCacheChanges() = default;
CMStatusCacheFolders::~CMStatusCacheFolders() = default;
CMStatusCacheFreshness::~CMStatusCacheFreshness() = default;
void CMStatusCacheFreshness::setPendingChanges(PendingChanges) {}

std::optional<FileState> getEffectiveStatus(const CMStatusCache& cache, const Path& path) {
    if (auto state = cache.getCachedStatus(path))
        return state;
    for (Path above = path.parentPath(); !above.empty(); above = above.parentPath()) {
        const auto state = cache.getCachedStatus(above);
        if (!state)
            continue;
        const auto kind = state->getState();
        if (kind == LocalStatus::Ignored || kind == LocalStatus::External)
            return FileState(kind);
        break;
    }
    return std::nullopt;
}

} // namespace quendo
