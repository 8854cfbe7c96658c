#pragma once

#include "quendo/platform/InstallationService.h"

#include <optional>

namespace quendo::platform {

/// Says what it was made with; by default that there is no installation. Any thread.
class QUENDO_API StandardInstallationService : public InstallationService {
public:
    explicit StandardInstallationService(std::optional<Path> rootFolder = std::nullopt);
    std::optional<Path> getRootFolder() const override;

private:
    const std::optional<Path> m_rootFolder;
};

} // namespace quendo::platform
