#include "quendo/change_detection/DisableChangeDetection.h"

#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <utility>

namespace quendo {
namespace {

struct Holder {
    std::shared_ptr<ManagedFolder> folder;
    ManagedFolder::ScopedDisablement disablement; ///< goes first
};

} // namespace

scope_guard disableChangeDetection(const Path& path) {
    auto folder = getSingletonManagedFolderProvider().provideFor(path);
    if (folder == nullptr)
        return {};
    auto disablement = folder->disable();
    auto holder = std::make_unique<Holder>(Holder{std::move(folder), std::move(*disablement)});
    return scope_guard([holder = std::move(holder)]() mutable { holder.reset(); });
}

} // namespace quendo
