#include "quendo/platform/standard/FileSystemCalls.h"

#include "quendo/platform/MountTable.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <sys/inotify.h>
#include <unistd.h>

namespace quendo::platform {

FileSystemCalls::~FileSystemCalls() = default;

int FileSystemCalls::addWatch(int inotify, const std::string& folder, std::uint32_t mask) {
    const int result = ::inotify_add_watch(inotify, folder.c_str(), mask);
    return result >= 0 ? result : -errno;
}

FolderListing FileSystemCalls::list(const std::string& folder, bool withEntries,
                                    const std::function<void()>& progress) {
    return FolderListing::take(folder, withEntries, progress);
}

std::string FileSystemCalls::mountTable(int file) {
    std::string text;
    std::array<char, 16'384> piece; // NOLINT: pread() fills it
    for (;;) {
        const auto size =
            ::pread(file, piece.data(), piece.size(), static_cast<off_t>(text.size()));
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            return text;
        text.append(piece.data(), static_cast<std::size_t>(size));
    }
}

std::size_t FileSystemCalls::watchLimit() {
    // That of the user namespace, and that of the system.
    std::size_t result = SIZE_MAX;
    for (const auto* file :
         {"/proc/sys/user/max_inotify_watches", "/proc/sys/fs/inotify/max_user_watches"}) {
        std::size_t limit = 0;
        if (std::ifstream(file) >> limit)
            result = std::min(result, limit);
    }
    return result;
}

std::optional<std::string> FileSystemCalls::readLink(const std::string& path) {
    return platform::readLink(path);
}

} // namespace quendo::platform
