#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Rethrowable.h"

namespace quendo::platform {

/// Thrown by a source of change events that refuses to tell the changes of a folder. The message
/// names the folder and the reason. The library's own watcher never refuses: it polls what it
/// cannot watch, and says so (FolderWatcher::getHealth).
class QUENDO_API ChangeEventsSubscriptionException
    : public exception::Rethrowable<ChangeEventsSubscriptionException> {
public:
    using Rethrowable::Rethrowable;
    ~ChangeEventsSubscriptionException() override;
};

} // namespace quendo::platform
