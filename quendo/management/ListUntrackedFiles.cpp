#include "quendo/management/ListUntrackedFiles.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CacheTask.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"
#include "quendo/pool/ManagedFolder.h"

#include <optional>

namespace quendo::management {
namespace {

bool isUntrackedFile(const FileState& state) {
    return !state.isFolder() && state.getState() == LocalStatus::NotUnderSourceControl;
}

} // namespace

std::vector<Path> listUntrackedFiles(const Path& folder, ManagedFolder& managedFolder) {
    std::vector<Path> untracked;
    auto& cache = managedFolder.getCache();
    if (cache.getFolderStatusFlag()) {
        cache.refreshFolder(folder)->wait();
        const auto files = platform::services()->files;
        for (auto& path : cache.getCachedFiles()) {
            if (!files->isAncestor(folder, path))
                continue;
            const auto state = cache.getCachedStatus(path);
            if (state && isUntrackedFile(*state))
                untracked.push_back(std::move(path));
        }
        return untracked;
    }
    for (const auto& [path, state] : managedFolder.getAdapter().getStatus(folder, true)) {
        if (isUntrackedFile(state))
            untracked.push_back(path);
    }
    return untracked;
}

} // namespace quendo::management
