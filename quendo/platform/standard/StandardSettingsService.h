#pragma once

#include "quendo/platform/SettingsService.h"

#include <memory>
#include <string_view>

namespace quendo::platform {

/// Settings held in memory. At the start there is one group, "kestro.sourcecontrol", with the
/// boolean "EnableSourceControl", true. Any thread; a change shows at once, also in groups that
/// were handed out before.
class QUENDO_API StandardSettingsService : public SettingsService {
public:
    StandardSettingsService();
    ~StandardSettingsService() override;

    std::shared_ptr<SettingsGroup> getRoot() const override;

    /// Makes the group when there is none of that full name.
    void setBoolean(std::string_view groupFullName, std::string_view name, bool value);

private:
    struct Values;
    class Group;
    std::shared_ptr<Values> m_values;
};

} // namespace quendo::platform
