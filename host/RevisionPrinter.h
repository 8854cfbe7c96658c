#pragma once

#include "quendo/adapter/Revision.h"
#include "quendo/platform/Path.h"

#include <span>
#include <string>

namespace quendo::host {

/// The id as people write it: the first digits of a long hash, anything else whole.
std::string shortID(const Revision& revision);

/// One line a revision: short id, local date, author, first line of the message, and the file's
/// path where it is not `file`. Safe to show on a terminal.
std::string humanRevisions(std::span<const std::unique_ptr<Revision>> revisions, const Path& file,
                           const Path& root);

/// One object a line, with everything that is known; dates in UTC, the path from `root`.
std::string jsonRevisions(std::span<const std::unique_ptr<Revision>> revisions, const Path& root,
                          const std::string& system);

} // namespace quendo::host
