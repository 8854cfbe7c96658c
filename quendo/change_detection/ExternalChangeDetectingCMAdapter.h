#pragma once

#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMAdapter.h"
#include "quendo/platform/Export.h"

#include <memory>

namespace quendo {

/// Wraps `adapter`: when somebody else changes its metadata folder, the status trigger of the
/// interactor is given, on a thread of the detection's own. What the adapter's own operations
/// write is disregarded (OwnWrites), apart from discardChanges, which nobody is told about
/// otherwise.
///
/// The detector is found as the subsystem FolderExternalChangeDetector.
///
/// Threads: as the wrapped adapter. Destroying it waits for no trigger: one under way holds the
/// interactor and may end later.
/// @throws exception::InvalidArgumentError when either is null; what the adapter and the detector
///         throw
QUENDO_API std::unique_ptr<CMAdapter>
makeExternalChangeDetectingCMAdapter(std::unique_ptr<CMAdapter> adapter,
                                     std::shared_ptr<ApplicationInteractor> interactor);

} // namespace quendo
