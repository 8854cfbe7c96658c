#include "quendo/factory/CMAdapterFactories.h"

#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/FactorySources.h"
#include "quendo/platform/FeatureFlagService.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Services.h"

#include <iterator>
#include <stdexcept>
#include <type_traits>

namespace quendo {
namespace {

constexpr const char* nativeSvnID = "QVSVNAdapter";
constexpr const char* javaSvnID =
    "com.tallowick.quendo.implementations.svnkitintegration.BuiltInSVNAdapterFactory";

std::shared_ptr<CMAdapterFactory> lookUp(const std::string& id) {
    for (auto& factory : getCMAdapterFactories()) {
        if (factory != nullptr && factory->getID() == id)
            return factory;
    }
    throw std::runtime_error("Unable to find adapter factory with id " + id);
}

} // namespace

std::vector<std::shared_ptr<CMAdapterFactory>> getInstalledFactories() {
    if (const auto sources = platform::services()->factorySources)
        return sources->getInstalledFactories();
    return {std::make_shared<git::GitAdapterFactory>()};
}

std::vector<std::unique_ptr<CMAdapterFactory>> jni::getCMAdapterFactories() {
    if (const auto sources = platform::services()->factorySources)
        return sources->getJavaFactories();
    return {};
}

std::vector<std::shared_ptr<CMAdapterFactory>> getCMAdapterFactories() {
    auto factories = getInstalledFactories();
    auto javaFactories = jni::getCMAdapterFactories();
    factories.insert(factories.end(), std::make_move_iterator(javaFactories.begin()),
                     std::make_move_iterator(javaFactories.end()));
    return factories;
}

std::shared_ptr<CMAdapterFactory> getCMAdapterFactory(const std::string& id) {
    return getCMAdapterFactory(CMAdapterType(id));
}

std::shared_ptr<CMAdapterFactory> getCMAdapterFactory(const char* id) {
    if (id == nullptr)
        throw exception::InvalidArgumentError("getCMAdapterFactory: there is no identifier");
    return getCMAdapterFactory(std::string(id));
}

std::shared_ptr<CMAdapterFactory> getCMAdapterFactory(CMAdapterType type) {
    if (std::holds_alternative<Git>(type))
        return std::make_shared<git::GitAdapterFactory>();
    if (const auto* id = std::get_if<std::string>(&type))
        return lookUp(*id);
    return lookUp(platform::services()->featureFlags->isOn("NativeSVNIntegration") ? nativeSvnID
                                                                                   : javaSvnID);
}

CMAdapterType getCMAdapterType(const CMAdapterFactory& factory) {
    auto id = factory.getID();
    if (id == git::GitAdapterFactory().getID())
        return Git{};
    if (id == nativeSvnID)
        return SVN{};
    return id;
}

} // namespace quendo
