#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <optional>

namespace quendo::platform {

/// Where the host application is installed.
class QUENDO_API InstallationService {
public:
    virtual ~InstallationService();

    /// The root folder of the host's installation, which is not watched for changes; nothing when
    /// there is none. The standard implementation has none: guessing one would leave a developer's
    /// own checkout unwatched.
    virtual std::optional<Path> getRootFolder() const = 0;
};

} // namespace quendo::platform
