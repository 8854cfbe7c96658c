#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <vector>

namespace quendo::platform {

/// Questions about files. None throws for a path that is missing or unreadable: the answer is no.
class QUENDO_API FileUtilities {
public:
    virtual ~FileUtilities();

    /// Whether something stands at `path`; a symbolic link counts also when its target is gone.
    virtual bool exists(const Path& path) const = 0;

    /// Whether `path` is a folder, symbolic links followed.
    virtual bool isDirectory(const Path& path) const = 0;

    /// Whether `path` lies below `ancestor`, by their text; nothing is its own ancestor.
    virtual bool isAncestor(const Path& ancestor, const Path& path) const = 0;

    /// Whether both name the same existing file or folder.
    virtual bool equivalent(const Path& a, const Path& b) const = 0;

    /// The same place without symbolic links, "." and ".."; what does not exist yet is kept as
    /// text behind the part that does.
    virtual Path canonical(const Path& path) const = 0;

    /// `files` with their parent folders below `root` put in, each path once, in ascending order.
    /// `root` itself and what is not below it get no parents: they are no targets of an addition.
    virtual std::vector<Path> includeParentDirectories(const std::vector<Path>& files,
                                                       const Path& root) const = 0;
};

} // namespace quendo::platform
