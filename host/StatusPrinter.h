#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/platform/Path.h"

#include <map>
#include <string>
#include <vector>

namespace quendo::host {

/// Which states are shown, beside those that differ from unmodified and are not ignored.
struct StatusSelection {
    /// Unmodified paths, and folders that only stand for what lies in them.
    bool all = false;
    bool untrackedOnly = false; ///< `ignored` still counts
    bool ignored = false;
};

/// An adapter's answer and what it was asked.
struct StatusReport {
    std::string system;               ///< UTF-8
    Path root;                        ///< the working copy's
    Path folder;                      ///< asked for, at or below `root`; `root` for several paths
    std::map<Path, FileState> states; ///< all at or below `root`
    StatusSelection selection;
    std::size_t pathCount = 1;   ///< how many were asked for
    bool isFile = false;         ///< `folder` is a file, which people are shown whatever its state
    bool isOneOfSeveral = false; ///< JSON has "root", to tell working copies apart

    /// Whether people and programs that read JSON are shown this entry of `states`.
    bool shows(const Path& path, const FileState& state) const noexcept;
};

/// One record for each pair of columns: the two columns, a tab, the path from the root in raw
/// bytes, `end`; sorted by the path's bytes. Only for paths whose back end gives columns.
std::string porcelainStatus(const StatusReport& report, char end);

/// One object a line, always valid UTF-8, in the order of Path.
std::string jsonStatus(const StatusReport& report);

/// One line a path and a summary, safe to show on a terminal.
/// @param current paths are shown as seen from here when it lies in the working copy or around it
std::string humanStatus(const StatusReport& report, const Path& current, bool colours);

/// What has changed, by path: a change counts when the state before or after it is one that
/// `report` shows; its `states` are not used. JSON has the state before as "before", and null for a
/// path that is, or was, not there.
std::string jsonChanges(const StatusReport& report, std::vector<StatusChange> changes);
std::string humanChanges(const StatusReport& report, std::vector<StatusChange> changes,
                         const Path& current, bool colours);

/// `path` as people see it from `current`: from there when that lies in `root` or around it.
std::string nameFrom(const Path& current, const Path& root, const Path& path);

/// `path` from `root`, "." for `root` itself.
Path pathFromRoot(const Path& path, const Path& root);

} // namespace quendo::host
