#pragma once

#include "quendo/platform/FileUtilities.h"

namespace quendo::platform {

/// Asks the operating system. Any thread.
class QUENDO_API StandardFileUtilities : public FileUtilities {
public:
    bool exists(const Path& path) const override;
    bool isDirectory(const Path& path) const override;
    bool isAncestor(const Path& ancestor, const Path& path) const override;
    bool equivalent(const Path& a, const Path& b) const override;
    Path canonical(const Path& path) const override;
    std::vector<Path> includeParentDirectories(const std::vector<Path>& files,
                                               const Path& root) const override;
};

} // namespace quendo::platform
