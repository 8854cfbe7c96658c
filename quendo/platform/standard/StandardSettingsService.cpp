#include "quendo/platform/standard/StandardSettingsService.h"

#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace quendo::platform {

struct StandardSettingsService::Values {
    using Booleans = std::map<std::string, bool, std::less<>>;

    mutable std::mutex mutex;
    std::map<std::string, Booleans, std::less<>> groups;
};

class StandardSettingsService::Group final : public SettingsGroup {
public:
    Group(std::shared_ptr<const Values> values, std::string fullName)
        : m_values(std::move(values)), m_fullName(std::move(fullName)) {}

    std::shared_ptr<SettingsGroup> getGroup(std::string_view fullName) const override {
        const std::lock_guard lock(m_values->mutex);
        if (!m_values->groups.contains(fullName))
            return nullptr;
        return std::make_shared<Group>(m_values, std::string(fullName));
    }

    std::optional<bool> getBoolean(std::string_view name) const override {
        const std::lock_guard lock(m_values->mutex);
        const auto group = m_values->groups.find(m_fullName);
        if (group == m_values->groups.end())
            return std::nullopt;
        const auto value = group->second.find(name);
        return value != group->second.end() ? std::optional(value->second) : std::nullopt;
    }

private:
    const std::shared_ptr<const Values> m_values;
    const std::string m_fullName;
};

StandardSettingsService::StandardSettingsService() : m_values(std::make_shared<Values>()) {
    setBoolean("kestro.sourcecontrol", "EnableSourceControl", true);
}

StandardSettingsService::~StandardSettingsService() = default;

std::shared_ptr<SettingsGroup> StandardSettingsService::getRoot() const {
    return std::make_shared<Group>(m_values, std::string());
}

void StandardSettingsService::setBoolean(std::string_view groupFullName, std::string_view name,
                                         bool value) {
    const std::lock_guard lock(m_values->mutex);
    m_values->groups[std::string(groupFullName)].insert_or_assign(std::string(name), value);
}

} // namespace quendo::platform
