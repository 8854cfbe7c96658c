#pragma once

#include "quendo/platform/FolderDeletionWatcher.h"

namespace quendo::platform {

/// Watches the folder and every folder above it with the folder watcher of the services, and looks
/// which folder is there whenever that tells something.
class QUENDO_API StandardFolderDeletionWatcherFactory : public FolderDeletionWatcherFactory {
public:
    /// @throws what the folder watcher throws
    std::unique_ptr<FolderDeletionWatcher> watch(const Path& folder) override;
};

} // namespace quendo::platform
