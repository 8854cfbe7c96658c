#pragma once

#include "quendo/adapter/Revision.h"
#include "quendo/platform/Path.h"

#include <string>

namespace quendo::host {

/// The id as people write it: the first digits of a long hash, anything else whole.
std::string shortID(const Revision& revision);

/// One line: short id, local date, author, first line of the message, and the file's path where it
/// is not `file`. Safe to show on a terminal.
std::string humanRevision(const Revision& revision, const Path& file, const Path& root);

/// One object on a line, with everything that is known; date in UTC, the path from `root`.
std::string jsonRevision(const Revision& revision, const Path& root, const std::string& system);

} // namespace quendo::host
