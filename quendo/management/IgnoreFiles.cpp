#include "quendo/management/IgnoreFiles.h"

#include "quendo/adapter/EventBroadcastingCMAdapter.h"
#include "quendo/adapter/IgnoreRuleEditor.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/OwnWrites.h"
#include "quendo/platform/Services.h"
#include "quendo/pool/FindInterface.h"

#include <algorithm>

namespace quendo::management {
namespace {

void notify(const std::vector<Path>& files, const std::vector<Path>& rules,
            ManagedFolder& managedFolder) {
    const auto* broadcaster = findInterface<EventBroadcastingCMAdapter>(managedFolder);
    if (broadcaster == nullptr)
        return;
    const auto utilities = platform::services()->files;
    std::vector<Path> changed = files;
    const auto firstFolder = std::ranges::stable_partition(
        changed, [&](const Path& path) { return !utilities->isDirectory(path); });
    const std::vector<Path> folders(firstFolder.begin(), firstFolder.end());
    changed.erase(firstFolder.begin(), firstFolder.end());
    changed.insert(changed.end(), rules.begin(), rules.end());
    // A managed folder waits for the files only; the cache answers them after the folders.
    broadcaster->dispatchStatusChanged(folders, changed);
}

} // namespace

void ignoreFiles(const std::vector<Path>& files, ManagedFolder& managedFolder) {
    auto* editor = findInterface<IgnoreRuleEditor>(managedFolder);
    if (editor == nullptr)
        throw exception::NotAvailableError(
            "Files of " + managedFolder.getRootFolder().toUtf8() +
            " cannot be ignored here: the adapter does not offer it; edit the source-control "
            "system's own ignore rules instead");
    std::vector<Path> rules;
    {
        std::shared_ptr<OwnWrites> writes;
        scope_guard suspended;
        if (auto* detector = findInterface<FolderExternalChangeDetector>(managedFolder))
            suspended = detector->disable(writes);
        const OwnWrites::Scope scope(std::move(writes));
        rules = getSourceControlExecutor()->runSyncTask(
            OwnWrites::handOver([=] { return editor->ignoreFiles(files); }));
    }
    if (!rules.empty())
        notify(files, rules, managedFolder);
}

} // namespace quendo::management
