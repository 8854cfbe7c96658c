#include "quendo/platform/standard/StandardInstallationService.h"

#include <utility>

namespace quendo::platform {

StandardInstallationService::StandardInstallationService(std::optional<Path> rootFolder)
    : m_rootFolder(std::move(rootFolder)) {}

std::optional<Path> StandardInstallationService::getRootFolder() const {
    return m_rootFolder;
}

} // namespace quendo::platform
