#pragma once

#include <optional>
#include <string_view>

namespace quendo::git {

/// One record of `git status --porcelain=v2 -z --no-renames`. Views into the record's text.
struct PorcelainRecord {
    enum class Kind { Changed, Unmerged, Untracked, Ignored };

    Kind kind;
    /// Two columns, blank as '.'; "??" and "!!" for what is not tracked.
    std::string_view columns;
    /// What of a submodule differs; all false for a file.
    bool submoduleCommit = false;
    bool submoduleModified = false;
    bool submoduleUntracked = false;
    /// Relative to the working copy's root, without a slash at the end.
    std::string_view path;
    bool endsWithSlash = false;

    /// @return nothing for a text that git does not print
    static std::optional<PorcelainRecord> parse(std::string_view text);
    /// Whether a text that parse() refuses is git's record of an index entry that has a name which
    /// no file can have: the index is damaged then.
    static bool namesImpossiblePath(std::string_view text);
};

/// Whether a path in an index or a tree can be that of a file: no part of it is empty, "." or "..".
bool isPossiblePath(std::string_view path);

} // namespace quendo::git
