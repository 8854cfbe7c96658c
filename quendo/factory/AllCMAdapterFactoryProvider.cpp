#include "quendo/factory/AllCMAdapterFactoryProvider.h"

#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/factory/CMAdapterFactories.h"
#include "quendo/factory/InjectedCMAdapterFactories.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/SettingsService.h"

#include <utility>

namespace quendo {

CMAdapterFactoryProvider::~CMAdapterFactoryProvider() = default;

namespace {

bool readSwitch(platform::SettingsService& settings) {
    const auto root = settings.getRoot();
    if (root == nullptr) {
        QUENDO_LOG(Severity::Notice) << "Unable to get settings root.";
        return false;
    }
    const auto group = root->getGroup("kestro.sourcecontrol");
    if (group == nullptr) {
        QUENDO_LOG(Severity::Notice) << "Unable to get source control settings group.";
        return false;
    }
    const auto enabled = group->getBoolean("EnableSourceControl");
    if (!enabled.has_value()) {
        QUENDO_LOG(Severity::Notice) << "Unable to read the setting EnableSourceControl.";
        return false;
    }
    return *enabled;
}

bool isSourceControlEnabled() {
    const auto services = platform::services();
    try {
        return readSwitch(*services->settings);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        return false;
    }
}

/// Takes the first factory of `factories` that recognises `folder`.
template <class Pointer>
std::shared_ptr<CMAdapterFactory> search(std::vector<Pointer> factories, const Path& folder) {
    for (auto& factory : factories) {
        try {
            if (factory != nullptr && factory->canManage(folder))
                return std::move(factory);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }
    return nullptr;
}

} // namespace

std::shared_ptr<CMAdapterFactory> AllCMAdapterFactoryProvider::provide(const Path& folder) const {
    if (!isSourceControlEnabled())
        return nullptr;
    // A factory may drop the caller's path while it is asked.
    const Path copy = folder;
    if (auto found = search(getInjectedCMAdapterFactoriesInstance().getFactories(), copy))
        return found;
    if (auto found = search(getInstalledFactories(), copy))
        return found;
    return search(jni::getCMAdapterFactories(), copy);
}

} // namespace quendo
