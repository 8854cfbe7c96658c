#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace quendo {

/// Files or folders whose changes can change states of other paths.
struct StateDependency {
    /// What is watched, at any depth. It may lie outside the working copy.
    Path folder;

    /// As MetadataFolder::filter: takes a path below `folder`; true when a change there matters,
    /// and for every folder on the way to such a path.
    std::function<bool(const Path&)> filter;

    /// Names the filter: for the same folder, equal names mean equal filters.
    std::string filterName;

    /// The paths to refresh after a change, each with all below it. The root stands for everything.
    std::vector<Path> dependents;

    /// When not zero, nothing is watched, because the files cannot be named or are too many:
    /// `dependents` are refreshed at this interval instead. `folder` and `filter` are empty then.
    std::chrono::seconds refreshEvery{};
};

/// Lists what the states of a working copy depend on beside its own files and its metadata folder:
/// nested working copies, configuration files, metadata that were moved. A subsystem of an adapter
/// that offers it (CMAdapter::getSubsystem(typeid(StateDependencies)) gives a pointer to it).
/// Belongs to the adapter and lives as long. A managed folder follows what it lists.
///
/// Threads: any, beside every other operation. A call may wait for another one.
class QUENDO_API StateDependencies {
public:
    virtual ~StateDependencies();

    /// Reads only. Cheap while nothing changed: a few file system calls for each nested folder.
    /// The list may change whenever a refresh has ended.
    /// @param nested the folders that may be nested working copies: those that a status query
    ///        answered with one entry, and those that hold one of the forbidden names. Others are
    ///        allowed and give nothing.
    /// @param changed those of `nested` whose dependencies have changed since the last call
    /// @throws exception::SourceControlException and its family (AdapterErrors.h)
    virtual std::vector<StateDependency>
    getStateDependencies(const std::vector<Path>& nested,
                         const std::vector<Path>& changed) const = 0;
};

} // namespace quendo
