#pragma once

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace quendo::git {

// Paths in native bytes, as git prints and takes them.

/// `path`, looked up in `folder` unless it is absolute.
inline std::string join(const std::string& folder, const std::string& path) {
    if (path.starts_with('/'))
        return path;
    return (folder == "/" ? "" : folder) + "/" + path;
}

/// "/" for one without a folder.
inline std::string parentFolderOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

/// `path` with all symbolic links resolved; nothing when it does not exist or cannot be reached,
/// with the reason in errno.
inline std::optional<std::string> canonical(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr),
                                                          std::free);
    return resolved ? std::optional<std::string>(resolved.get()) : std::nullopt;
}

/// Whether there is a folder, symbolic links followed.
inline bool isFolder(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace quendo::git
