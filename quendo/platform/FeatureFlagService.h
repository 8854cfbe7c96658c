#pragma once

#include "quendo/platform/Export.h"

#include <string_view>

namespace quendo::platform {

/// The host's feature flags.
class QUENDO_API FeatureFlagService {
public:
    virtual ~FeatureFlagService();

    /// Whether the flag is on; false for one that is not known.
    virtual bool isOn(std::string_view name) const = 0;
};

} // namespace quendo::platform
