#pragma once

#include <map>
#include <string>
#include <unordered_set>
#include <vector>

namespace quendo::git {

class GitRunner;

/// What git answers about ignore rules and paths.
struct IgnoreAnswer {
    std::unordered_set<std::string> ignored;
    /// Paths that git refuses to answer for, with its words: those in a submodule that is not
    /// checked out, or behind a symbolic link. The words may name another path in the same folder.
    std::map<std::string, std::string> refused;
};

/// Asks git which of `paths` are ignored. A path that git refuses costs its own answer only; there
/// is one more run of git for each folder with such paths, or for each such submodule.
/// @param paths relative to the working copy's root
/// @param withIndex a tracked path is not ignored, whatever the rules say; costs time in proportion
///        to the index for each path
/// @throws as GitRunner::read()
IgnoreAnswer queryIgnored(GitRunner& git, const std::vector<std::string>& paths, bool withIndex);

} // namespace quendo::git
