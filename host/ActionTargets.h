#pragma once

#include "host/WorkingCopy.h"
#include "quendo/adapter/FileState.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace quendo::host {

/// What an action is to be done to: paths of one working copy.
struct ActionTargets {
    using States = std::map<Path, FileState>;

    WorkingCopy copy;
    std::vector<std::string> arguments; ///< as they were given
    std::vector<Path> paths;            ///< one for each argument

    /// @throws HostError for paths that cannot be used, or belong to different working copies
    static ActionTargets ofFiles(const std::vector<std::string>& arguments);
    static ActionTargets ofPaths(const std::vector<std::string>& arguments);

    /// What the adapter says of the paths and of all below those that are folders.
    /// @throws HostError for a path that does not exist or cannot be read
    States states() const;

    /// @throws HostError for an argument that is not under source control
    void refuseUntracked(const States& states) const;

private:
    static ActionTargets of(const std::vector<std::string>& arguments,
                            WorkingCopy (*open)(const std::string&));
};

bool isUntracked(const FileState& state);

/// Whether it is under source control and differs from the last commit. A working copy that is a
/// part of this one differs when another of its commits belongs here, whatever else is in it.
bool isChanged(const FileState& state);

/// The paths of the states that are meant, in the order of the map.
std::vector<Path> pathsWhere(const ActionTargets::States& states,
                             const std::function<bool(const FileState&)>& isMeant);

/// "1 file", "2 files".
std::string countOf(std::size_t number);

/// One a line, as people see them from the current folder.
std::string linesOf(const std::vector<Path>& paths, const ActionTargets::States& states,
                    const Path& root);

} // namespace quendo::host
