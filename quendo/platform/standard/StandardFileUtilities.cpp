#include "quendo/platform/standard/StandardFileUtilities.h"

#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <sys/stat.h>

namespace quendo::platform {
namespace {

std::optional<Path> resolved(const Path& path) {
    const std::unique_ptr<char, decltype(&std::free)> text(
        ::realpath(path.toNative().c_str(), nullptr), std::free);
    return text != nullptr ? std::optional(Path::fromNative(text.get())) : std::nullopt;
}

} // namespace

bool StandardFileUtilities::exists(const Path& path) const {
    struct stat entry;
    return ::lstat(path.toNative().c_str(), &entry) == 0;
}

bool StandardFileUtilities::isDirectory(const Path& path) const {
    struct stat entry;
    return ::stat(path.toNative().c_str(), &entry) == 0 && S_ISDIR(entry.st_mode);
}

bool StandardFileUtilities::isAncestor(const Path& ancestor, const Path& path) const {
    return path.isBelow(ancestor);
}

bool StandardFileUtilities::equivalent(const Path& a, const Path& b) const {
    struct stat first;
    struct stat second;
    return ::stat(a.toNative().c_str(), &first) == 0 &&
           ::stat(b.toNative().c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

Path StandardFileUtilities::canonical(const Path& path) const {
    if (path.empty())
        return path;
    if (const auto whole = resolved(path))
        return *whole;
    Path absolute = path;
    if (!path.isAbsolute()) {
        if (const auto here = resolved(Path(u".")))
            absolute = *here / path;
    }
    Path rest;
    for (Path front = absolute; !front.empty(); front = front.parentPath()) {
        if (const auto existing = resolved(front))
            return (*existing / rest).lexicallyNormal();
        rest = front.fileName() / rest;
    }
    return absolute.lexicallyNormal();
}

std::vector<Path> StandardFileUtilities::includeParentDirectories(const std::vector<Path>& files,
                                                                  const Path& root) const {
    std::set<Path> result;
    for (const auto& file : files) {
        result.insert(file);
        if (!file.isBelow(root))
            continue;
        // Parents that are in already have theirs in as well, or get them in their own turn.
        for (Path parent = file.parentPath(); parent.isBelow(root); parent = parent.parentPath()) {
            if (!result.insert(parent).second)
                break;
        }
    }
    return {result.begin(), result.end()};
}

} // namespace quendo::platform
