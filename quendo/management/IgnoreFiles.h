#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <vector>

namespace quendo {
class ManagedFolder;
}

namespace quendo::management {

/// Makes the source-control system ignore these files and folders from now on; in Git by a rule in
/// the root's `.gitignore` for exactly each path. What is ignored already stays as it is.
///
/// CMAdapter::ignoreFile() reaches no adapter through its layers; this does, as every other
/// operation that changes something: on the source-control thread, with external change detection
/// suspended, and with the adapter's status listeners notified. The cache has the new states when
/// it returns.
///
/// @param files paths of the managed folder's working copy, untracked, in its spelling
/// @throws exception::NotAvailableError when the adapter offers no IgnoreRuleEditor;
///         exception::OperationFailedError for a path that is under source control, holds files
///         that are, does not exist, or has a name that no rule can hold: nothing is ignored
///         then; ExecutorDeadlockError on the source-control thread
/// Threads: any that may wait for the adapter.
QUENDO_API void ignoreFiles(const std::vector<Path>& files, ManagedFolder& managedFolder);

} // namespace quendo::management
