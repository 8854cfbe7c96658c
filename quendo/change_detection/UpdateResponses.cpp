#include "quendo/change_detection/UpdateResponses.h"

#include "quendo/cache/CMStatusCacheFolders.h"

#include <set>
#include <utility>

namespace quendo {
namespace {

/// The paths above these files, but for the root, whose entries do not fit what is cached below
/// them: an untracked folder with its first tracked file, a tracked one without its last, a file in
/// whose place there is a folder now.
std::set<Path> misfitsAbove(const CMStatusCache& cache, const std::vector<Path>& files) {
    const auto* folders = dynamic_cast<const CMStatusCacheFolders*>(&cache);
    std::set<Path> misfits;
    for (const auto& file : files) {
        for (Path path = file.parentPath(); !path.empty(); path = path.parentPath()) {
            const auto state = cache.getCachedStatus(path);
            if (!state || folders == nullptr || !cache.getCachedStatus(path.parentPath()))
                continue;
            const auto below = folders->getFolderSummary(path).below;
            const bool holdsTracked = below[LocalStatus::Unmodified] +
                                          below[LocalStatus::Modified] +
                                          below[LocalStatus::Missing] + below[LocalStatus::Added] +
                                          below[LocalStatus::Conflicted] !=
                                      0;
            const bool isUntracked = state->getState() == LocalStatus::NotUnderSourceControl ||
                                     state->getState() == LocalStatus::Ignored;
            if (!state->isFolder() || (holdsTracked && isUntracked) ||
                (!holdsTracked && state->getState() == LocalStatus::Unmodified))
                misfits.insert(path);
        }
    }
    return misfits;
}

} // namespace

std::function<void()> fullUpdateResponse(std::weak_ptr<CMStatusCache> cache) {
    return [cache = std::move(cache)] {
        if (const auto locked = cache.lock())
            locked->refreshAll();
    };
}

std::function<void()> nonBlockingFullUpdateResponse(std::weak_ptr<CMStatusCache> cache,
                                                    const Path& folder) {
    return [cache = std::move(cache), folder] {
        if (const auto locked = cache.lock())
            locked->refreshFolder(folder);
    };
}

std::function<void(std::vector<Path>)> filesUpdateResponse(std::weak_ptr<CMStatusCache> cache) {
    return [cache = std::move(cache)](const std::vector<Path>& files) {
        if (const auto locked = cache.lock()) {
            locked->refreshCMStatuses(files)->wait();
            // What one answer sets right may leave a folder further up that does not fit.
            std::set<Path> asked;
            for (;;) {
                auto misfits = misfitsAbove(*locked, files);
                std::erase_if(misfits,
                              [&](const Path& path) { return !asked.insert(path).second; });
                if (misfits.empty())
                    return;
                locked->refreshCMStatuses({misfits.begin(), misfits.end()})->wait();
            }
        }
    };
}

std::function<void(std::vector<Path>)> foldersUpdateResponse(std::weak_ptr<CMStatusCache> cache) {
    return [cache = std::move(cache)](const std::vector<Path>& folders) {
        if (const auto locked = cache.lock()) {
            for (const auto& folder : folders)
                locked->refreshFolder(folder);
        }
    };
}

} // namespace quendo
