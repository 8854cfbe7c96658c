#pragma once

#include "quendo/adapter/CMAdapterType.h"
#include "quendo/platform/Export.h"

#include <memory>
#include <string>
#include <vector>

/// The registry of adapter factories. Nothing is cached: every call asks the sources again, so a
/// factory that appears later is found then. Any thread; what a source throws reaches the caller.
namespace quendo {

class CMAdapterFactory;

/// The natively installed factories: the host's, or those built into the library.
QUENDO_API std::vector<std::shared_ptr<CMAdapterFactory>> getInstalledFactories();

namespace jni {
/// The factories of the host's Java layer; empty without one.
QUENDO_API std::vector<std::unique_ptr<CMAdapterFactory>> getCMAdapterFactories();
} // namespace jni

/// The installed factories, then those of the Java layer; without the injected ones.
QUENDO_API std::vector<std::shared_ptr<CMAdapterFactory>> getCMAdapterFactories();

/// The first factory with this identifier.
/// @throws std::runtime_error "Unable to find adapter factory with id " and the identifier.
QUENDO_API std::shared_ptr<CMAdapterFactory> getCMAdapterFactory(const std::string& id);
/// The same for a literal, which would fit both of the others.
/// @throws exception::InvalidArgumentError for a null pointer
QUENDO_API std::shared_ptr<CMAdapterFactory> getCMAdapterFactory(const char* id);

/// The factory of this type. `Git` is always there; `SVN` is the native one when the feature flag
/// "NativeSVNIntegration" is on and the one of the Java layer when it is off.
/// @throws std::runtime_error as above.
QUENDO_API std::shared_ptr<CMAdapterFactory> getCMAdapterFactory(CMAdapterType type);

/// The type that stands for a factory. One-sided on purpose: the Java layer's SVN factory is known
/// by its identifier, not as `SVN`.
QUENDO_API CMAdapterType getCMAdapterType(const CMAdapterFactory& factory);

} // namespace quendo
