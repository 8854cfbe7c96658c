#include "quendo/platform/IsChildFolderQuery.h"

namespace quendo {

IsChildFolderQuery::IsChildFolderQuery(const std::vector<Path>& folders)
    : m_folders(folders.begin(), folders.end()) {}

bool IsChildFolderQuery::isChild(const Path& path) const {
    if (m_folders.empty())
        return false;
    for (Path current = path; !current.empty(); current = current.parentPath()) {
        if (m_folders.contains(current))
            return true;
    }
    return false;
}

} // namespace quendo
