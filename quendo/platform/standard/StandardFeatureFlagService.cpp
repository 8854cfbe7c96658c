#include "quendo/platform/standard/StandardFeatureFlagService.h"

namespace quendo::platform {

bool StandardFeatureFlagService::isOn(std::string_view name) const {
    const std::lock_guard lock(m_mutex);
    const auto flag = m_flags.find(name);
    return flag != m_flags.end() && flag->second;
}

void StandardFeatureFlagService::set(std::string_view name, bool on) {
    const std::lock_guard lock(m_mutex);
    m_flags.insert_or_assign(std::string(name), on);
}

} // namespace quendo::platform
