#pragma once

#include "quendo/platform/Export.h"

#include <memory>
#include <vector>

namespace quendo {
class CMAdapterFactory;
}

namespace quendo::platform {

/// Where adapter factories come from besides those injected at run time. Each call makes a fresh
/// list, in order of preference; what it throws reaches the caller.
class QUENDO_API FactorySources {
public:
    virtual ~FactorySources();

    /// The natively installed factories.
    virtual std::vector<std::shared_ptr<CMAdapterFactory>> getInstalledFactories() = 0;

    /// The factories that the host's Java layer offers; empty without one.
    virtual std::vector<std::unique_ptr<CMAdapterFactory>> getJavaFactories() = 0;
};

} // namespace quendo::platform
