#include "quendo/management/CMActionManager.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <set>

namespace quendo::management {

CMActionManager::CMActionManager(CMAdapter& adapter) : m_adapter(adapter) {}

void CMActionManager::performConditionalAction(
    const std::vector<Path>& files, const std::function<bool(LocalStatus)>& predicate,
    const std::function<void(const std::vector<Path>&)>& action) {
    const std::set<Path> requested(files.begin(), files.end());
    std::vector<Path> chosen;
    for (const auto& [path, state] : m_adapter.getStatus(files)) {
        if (predicate(state.getState()) && requested.contains(path))
            chosen.push_back(path);
    }
    if (!chosen.empty())
        action(chosen);
}

void CMActionManager::add(const std::vector<Path>& files, const Path& root) {
    const auto utilities = platform::services()->files;
    const auto all = utilities->includeParentDirectories(files, root);
    performConditionalAction(
        all, [](LocalStatus status) { return status == LocalStatus::Deleted; },
        [&](const std::vector<Path>& deleted) {
            auto sorted = deleted;
            const auto missing =
                std::stable_partition(sorted.begin(), sorted.end(),
                                      [&](const Path& path) { return utilities->exists(path); });
            m_adapter.uncheckout({missing, sorted.end()});
            m_adapter.addFiles({sorted.begin(), missing});
        });
    performConditionalAction(
        all, [](LocalStatus status) { return status == LocalStatus::NotUnderSourceControl; },
        [&](const std::vector<Path>& untracked) { m_adapter.addFiles(untracked); });
}

void CMActionManager::remove(const std::vector<Path>& files) {
    performConditionalAction(
        files, [](LocalStatus status) { return status == LocalStatus::Added; },
        [&](const std::vector<Path>& added) { m_adapter.uncheckout(added); });
    performConditionalAction(
        files,
        [](LocalStatus status) {
            return status != LocalStatus::NotUnderSourceControl && status != LocalStatus::Ignored &&
                   status != LocalStatus::Deleted && status != LocalStatus::External &&
                   status != LocalStatus::Unknown;
        },
        [&](const std::vector<Path>& tracked) { m_adapter.removeFiles(tracked); });
}

} // namespace quendo::management
