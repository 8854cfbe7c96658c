#pragma once

#include "quendo/adapter/LocalStatus.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <functional>
#include <vector>

namespace quendo {
class CMAdapter;
}

namespace quendo::management {

/// Adds and removes files without their states being known: asks for them, and does to each file
/// what its state calls for.
///
/// - add: files that are scheduled for deletion get uncheckout when they are missing on disk, then
///   addFiles for the others; files that are not under source control get addFiles.
/// - remove: files that are scheduled for addition get uncheckout and stay on disk; those that are
///   anything but untracked, ignored, deleted, external or unknown get removeFiles.
///
/// The two steps of an operation ask for the states anew. What an operation throws ends the rest;
/// what was done stays done.
///
/// Threads: any that may wait for the adapter.
class QUENDO_API CMActionManager {
public:
    /// @param adapter a managed folder's; it must outlive this
    explicit CMActionManager(CMAdapter& adapter);

    /// Asks for the states of `files` once, and calls `action` once with those that are among them
    /// and satisfy the predicate, in ascending order; not at all when there are none.
    /// @throws std::bad_function_call for an empty function that is needed
    void performConditionalAction(const std::vector<Path>& files,
                                  const std::function<bool(LocalStatus)>& predicate,
                                  const std::function<void(const std::vector<Path>&)>& action);

    /// Adds files, and the folders above them below `root` that are not under source control.
    void add(const std::vector<Path>& files, const Path& root);

    void remove(const std::vector<Path>& files);

private:
    CMAdapter& m_adapter;
};

} // namespace quendo::management
