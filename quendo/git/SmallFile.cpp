#include "quendo/git/SmallFile.h"

#include "quendo/git/FileDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::git {

std::optional<std::string> readSmallFile(const std::string& file, std::size_t limit) {
    const FileDescriptor descriptor(
        ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!descriptor || ::fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    std::string content;
    char buffer[16 * 1024];
    for (;;) {
        const auto count = ::read(descriptor.get(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 || content.size() + static_cast<std::size_t>(count) > limit)
            return std::nullopt;
        if (count == 0)
            return content;
        content.append(buffer, static_cast<std::size_t>(count));
    }
}

} // namespace quendo::git
