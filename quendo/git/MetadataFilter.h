#pragma once

#include <functional>
#include <string>
#include <string_view>

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

/// The same for a path relative to the metadata folder of one working copy that shares it with no
/// other.
bool isRelevantMetadata(std::string_view relative);

} // namespace quendo::git
