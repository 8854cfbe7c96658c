#include "quendo/factory/AllCMAdapterFactoryProvider.h"

#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/factory/CMAdapterFactories.h"
#include "quendo/factory/InjectedCMAdapterFactories.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/SettingsService.h"

#include <atomic>
#include <iterator>
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

bool readSwitchSafely(platform::SettingsService& settings) {
    try {
        return readSwitch(settings);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        return false;
    }
}

bool isSourceControlEnabled(const std::shared_ptr<const platform::Services>& services) {
    const auto* settings = services->settings.get();
    const bool isEnabled = readSwitchSafely(*services->settings);
    // Logged when it is switched off, and not for each folder that is asked about afterwards.
    static std::atomic<const void*> switchedOff{nullptr};
    if (isEnabled) {
        switchedOff.store(nullptr, std::memory_order_relaxed);
    } else if (switchedOff.exchange(settings, std::memory_order_relaxed) != settings) {
        QUENDO_LOG(Severity::Notice)
            << "Source control is off: no folder is managed until the settings service has the "
               "group \"kestro.sourcecontrol\" with \"EnableSourceControl\" true.";
    }
    return isEnabled;
}

/// Takes the first factory of `factories` that recognises `folder`.
std::shared_ptr<CMAdapterFactory> search(std::vector<std::shared_ptr<CMAdapterFactory>> factories,
                                         const Path& folder) {
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
    return provide(folder, platform::services());
}

std::shared_ptr<CMAdapterFactory> AllCMAdapterFactoryProvider::provide(
    const Path& folder, const std::shared_ptr<const platform::Services>& services) const {
    if (!isSourceControlEnabled(services))
        return nullptr;
    // The lists come from these services, and the factories are called without them.
    const auto installed = [&] {
        const platform::ThreadServices use(services);
        return getInstalledFactories();
    };
    const auto ofJava = [&] {
        const platform::ThreadServices use(services);
        auto owned = jni::getCMAdapterFactories();
        return std::vector<std::shared_ptr<CMAdapterFactory>>(
            std::make_move_iterator(owned.begin()), std::make_move_iterator(owned.end()));
    };
    // A factory may drop the caller's path while it is asked.
    const Path copy = folder;
    if (auto found = search(getInjectedCMAdapterFactoriesInstance().getFactories(), copy))
        return found;
    if (auto found = search(installed(), copy))
        return found;
    return search(ofJava(), copy);
}

} // namespace quendo
