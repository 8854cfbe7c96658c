#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <vector>

namespace quendo {

/// Optional interface of an adapter, found by getSubsystem: writes ignore rules.
///
/// getSubsystem leads past the adapter's layers, so a host calls management::ignoreFiles() instead,
/// which does what the layers do for other operations that change something.
///
/// Threads: the source-control executor only.
class QUENDO_API IgnoreRuleEditor {
public:
    virtual ~IgnoreRuleEditor();

    /// Makes the system ignore these files and folders from now on, in their order. What is ignored
    /// already stays as it is. A rules file is written once, in one step, when all were looked at.
    /// @return the files with rules that were written, each once; none when all was ignored already
    /// @throws exception::OperationFailedError for a path that is under source control, holds files
    ///         that are, does not exist, or has a name that no rule can hold
    virtual std::vector<Path> ignoreFiles(const std::vector<Path>& files) = 0;
};

} // namespace quendo
