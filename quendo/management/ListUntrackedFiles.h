#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <vector>

namespace quendo {
class ManagedFolder;
}

namespace quendo::management {

/// The files below `folder` that are not under source control and not ignored; no folders.
///
/// With the cache's folder status flag set, `folder` is refreshed and the cache answers, in no
/// order; else the adapter is asked, and the answer is in ascending order.
///
/// Threads: any that may wait for a refresh. @throws what the refresh or the adapter throws
QUENDO_API std::vector<Path> listUntrackedFiles(const Path& folder, ManagedFolder& managedFolder);

} // namespace quendo::management
