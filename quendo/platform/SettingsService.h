#pragma once

#include "quendo/platform/Export.h"

#include <memory>
#include <optional>
#include <string_view>

namespace quendo::platform {

/// One group of the host's settings.
class QUENDO_API SettingsGroup {
public:
    virtual ~SettingsGroup();

    /// The group with this full name ("kestro.sourcecontrol"), or null when there is none.
    virtual std::shared_ptr<SettingsGroup> getGroup(std::string_view fullName) const = 0;

    /// The boolean setting of this group, or nothing when there is none of that name and kind.
    virtual std::optional<bool> getBoolean(std::string_view name) const = 0;
};

/// The host's settings. Read every time they are needed, so a change takes effect at once.
///
/// The library reads one: the boolean "EnableSourceControl" of the group "kestro.sourcecontrol".
/// Unless it is there and true, no folder is managed: ManagedFolderProvider::provideFor() returns
/// null. A service of the host's must have it.
class QUENDO_API SettingsService {
public:
    virtual ~SettingsService();

    /// The root of all settings, or null while they cannot be read.
    virtual std::shared_ptr<SettingsGroup> getRoot() const = 0;
};

} // namespace quendo::platform
