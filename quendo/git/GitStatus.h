#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/platform/Path.h"

#include <map>
#include <string>
#include <vector>

namespace quendo::git {

class GitRunner;

/// Answers for the states of a working copy through the user's git. One object answers one call.
/// See the top of the source for how. Threads: used by one.
class GitStatus {
public:
    explicit GitStatus(GitRunner& git) : m_git(git) {}

    /// The folder or file and everything below it; without untracked and ignored ones unless asked.
    std::map<Path, FileState> ofFolder(const Path& folder, bool includeUntracked);

    /// Each path and everything below it.
    std::map<Path, FileState> ofPaths(const std::vector<Path>& paths);

private:
    GitRunner& m_git;
};

} // namespace quendo::git
