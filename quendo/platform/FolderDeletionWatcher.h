#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <memory>

namespace quendo::platform {

/// Tells once when a folder has gone: deleted, moved away, replaced by another, or its file system
/// unmounted; also when that happens to a folder above it. Lives as long as somebody wants to know.
///
/// Threads: any. Listeners run on the folder watcher's thread, or on a strand when the folder lies
/// in a remote file system; they must be quick. One that throws std::bad_alloc or std::system_error
/// is called again later, with those before it. Destroying the watcher waits for a listener under
/// way, unless it is the one that destroys it.
class QUENDO_API FolderDeletionWatcher {
public:
    using Slot = boost::signals2::slot<void()>;

    virtual ~FolderDeletionWatcher();

    /// Called once. Who connects afterwards hears nothing: see isDeleted().
    virtual boost::signals2::connection onDeleted(const Slot& slot) = 0;

    /// Whether it has gone; true from before the listeners are called.
    virtual bool isDeleted() const = 0;
};

/// Makes deletion watchers.
class QUENDO_API FolderDeletionWatcherFactory {
public:
    virtual ~FolderDeletionWatcherFactory();

    /// For `folder` as it is now; one that is not there counts as deleted at once.
    virtual std::unique_ptr<FolderDeletionWatcher> watch(const Path& folder) = 0;
};

} // namespace quendo::platform
