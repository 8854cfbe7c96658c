#pragma once

#include "quendo/platform/Path.h"

#include <functional>

namespace quendo {

/// Where a working copy's metadata lie, and which paths inside matter for states.
struct MetadataFolder {
    Path folder;

    /// Takes an absolute path below `folder`: true when a change there can change a state, and for
    /// every folder on the way to such a path. Asks nothing of the disk; any thread.
    std::function<bool(const Path&)> filter;
};

} // namespace quendo
