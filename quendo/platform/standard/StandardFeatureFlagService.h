#pragma once

#include "quendo/platform/FeatureFlagService.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace quendo::platform {

/// Flags held in memory; at the start "NativeSVNIntegration" is on. Any thread.
class QUENDO_API StandardFeatureFlagService : public FeatureFlagService {
public:
    bool isOn(std::string_view name) const override;
    void set(std::string_view name, bool on);

private:
    mutable std::mutex m_mutex;
    std::map<std::string, bool, std::less<>> m_flags{{"NativeSVNIntegration", true}};
};

} // namespace quendo::platform
