#pragma once

#include <functional>
#include <string>

namespace quendo {
class Path;
}

namespace quendo::git {

/// Decides which paths in a repository's metadata can change the state of a file of one working
/// copy: HEAD, the index, refs, configuration, excludes, and what a merge, rebase, cherry-pick,
/// revert or bisect leaves. Not objects, logs, hooks or locks, and not what belongs to another
/// working copy of the same repository. By the path's text alone.
/// @param gitDir the working copy's own metadata folder, in `commonDir` or equal to it
std::function<bool(const Path&)> makeMetadataFilter(const std::string& commonDir,
                                                    const std::string& gitDir);

} // namespace quendo::git
