#pragma once

#include "quendo/platform/FolderDeletionWatcher.h"

#include <memory>

namespace quendo::platform {

class FolderWatcher;

/// Watches the folder and every folder above it with a folder watcher, and looks
/// which folder is there whenever that tells something.
class QUENDO_API StandardFolderDeletionWatcherFactory : public FolderDeletionWatcherFactory {
public:
    /// @param watcher null for that of services()
    explicit StandardFolderDeletionWatcherFactory(std::shared_ptr<FolderWatcher> watcher = nullptr);

    /// @throws what the folder watcher throws
    std::unique_ptr<FolderDeletionWatcher> watch(const Path& folder) override;

private:
    const std::shared_ptr<FolderWatcher> m_watcher;
};

} // namespace quendo::platform
