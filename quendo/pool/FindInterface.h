#pragma once

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/cache/BranchStateCache.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderDecorator.h"

#include <any>

namespace quendo {

/// An optional interface of a managed folder, wherever it is implemented, or null:
///
/// | Interface | Implemented by |
/// |---|---|
/// | CMStatusCacheChanges, CMStatusCacheFolders, CMStatusCacheFreshness | the cache |
/// | CMStatusCacheStatistics | the cache |
/// | EventBroadcastingCMAdapter, for its listeners | the outermost layer of the adapter |
/// | BranchStateCache | the folder, which has a getter for it as well |
/// | BranchInformation, RevisionContent, RevisionHistory | the adapter, as a subsystem |
/// | IgnoreRuleEditor, StateDependencies | the adapter, as a subsystem |
/// | FolderExternalChangeDetector | a layer of the adapter, as a subsystem |
/// | ApplicationInteractor | the interactor |
///
/// What is found first in the order folder (and what its decorators wrap), caches, adapter,
/// interactor, subsystems is returned. It is valid as long as the folder is held.
///
///     if (auto* branch = findInterface<BranchInformation>(*folder))
///         show(branch->getBranchState().branch);
///
/// Threads: any. @throws what CMAdapter::getSubsystem() throws
template <class Interface>
Interface* findInterface(ManagedFolder& folder) {
    for (ManagedFolder* each = &folder; each != nullptr;) {
        if (auto* found = dynamic_cast<Interface*>(each))
            return found;
        auto* decorator = dynamic_cast<ManagedFolderDecorator*>(each);
        each = decorator != nullptr ? &decorator->wrapped() : nullptr;
    }
    if (auto* found = dynamic_cast<Interface*>(&folder.getCache()))
        return found;
    if (auto* found = dynamic_cast<Interface*>(folder.getBranchStateCache()))
        return found;
    auto& adapter = folder.getAdapter();
    if (auto* found = dynamic_cast<Interface*>(&adapter))
        return found;
    if (auto* found = dynamic_cast<Interface*>(&folder.getCMInteractor()))
        return found;
    const auto subsystem = adapter.getSubsystem(typeid(Interface));
    const auto* found = std::any_cast<Interface*>(&subsystem);
    return found != nullptr ? *found : nullptr;
}

} // namespace quendo
