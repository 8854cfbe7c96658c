#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <unordered_set>
#include <vector>

namespace quendo {

/// Answers, for many paths, whether each lies in one of some folders. A folder lies in itself.
/// By the text of the paths; the cost of a question is that of the path's depth, not of the number
/// of folders. Threads: constant after construction.
class QUENDO_API IsChildFolderQuery {
public:
    explicit IsChildFolderQuery(const std::vector<Path>& folders);

    bool isChild(const Path& path) const;

private:
    std::unordered_set<Path> m_folders;
};

} // namespace quendo
