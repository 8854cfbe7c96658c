#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/ScopeGuard.h"

namespace quendo {

/// Switches change detection off for the working copy that holds `path`, of files and of the
/// repository, until the guard is released; makes its managed folder if there is none, and keeps it
/// alive. An empty guard when there is no working copy around `path`.
///
/// There is no count: of two guards the one that is released first turns detection on again. What
/// happened meanwhile is not made up for: refreshAll() afterwards.
///
/// Threads: any that may wait. Releasing the guard may end the folder.
/// @throws as ManagedFolderProvider::provideFor(); detection is on then
[[nodiscard]] QUENDO_API scope_guard disableChangeDetection(const Path& path);

} // namespace quendo
