#include "quendo/git/IgnoreRules.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/git/SmallFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::git {
namespace {

using exception::OperationFailedError;

constexpr const char* rulesName = ".gitignore";
constexpr const char* newName = ".gitignore.quendo-new";
constexpr std::size_t rulesLimit = 16U << 20U;

} // namespace

std::string ignoreRuleFor(std::string_view path, bool isFolder) {
    if (path.find('\n') != std::string_view::npos)
        throw OperationFailedError("a name with a line end in it cannot be ignored by Git: no rule "
                                   "can hold it");
    std::string rule = "/";
    for (const char one : path) {
        if (std::string_view("*?[\\").find(one) != std::string_view::npos)
            rule += '\\';
        rule += one;
    }
    if (isFolder)
        return rule + "/";
    // Git drops blanks at the end, and a carriage return is one half of a line end to it.
    if (rule.ends_with('\r'))
        throw OperationFailedError("a name that ends with a carriage return cannot be ignored by "
                                   "Git: no rule can hold it");
    if (rule.ends_with(' '))
        rule.insert(rule.size() - 1, "\\");
    return rule;
}

void addIgnoreRules(int root, const std::vector<std::string>& rules, const std::string& shown) {
    const auto fail = [&](int error) {
        throw OperationFailedError(shown + " cannot be changed: " + std::strerror(error));
    };
    std::string content;
    mode_t mode = 0666;
    bool isNew = true;
    struct stat status {};
    if (::fstatat(root, rulesName, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        // Git does not read rules through a link either.
        if (!S_ISREG(status.st_mode))
            throw OperationFailedError(shown + " is not a regular file; replace it by one");
        const FileDescriptor file(
            ::openat(root, rulesName, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        const auto read =
            file ? readSmallFile("/proc/self/fd/" + std::to_string(file.get()), rulesLimit)
                 : std::nullopt;
        if (!read)
            throw OperationFailedError(shown + " cannot be read");
        content = *read;
        mode = status.st_mode & 07777;
        isNew = false;
    }
    const bool hasCarriageReturns = content.find("\r\n") != std::string::npos;
    const std::string lineEnd = hasCarriageReturns ? "\r\n" : "\n";
    if (!content.empty() && !content.ends_with('\n'))
        content += lineEnd;
    for (const auto& rule : rules)
        content += rule + lineEnd;

    ::unlinkat(root, newName, 0); // left by a process that was killed
    const FileDescriptor file(
        ::openat(root, newName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!file)
        fail(errno);
    std::string_view rest = content;
    while (!rest.empty()) {
        const auto count = ::write(file.get(), rest.data(), rest.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            const int error = errno;
            ::unlinkat(root, newName, 0);
            fail(error);
        }
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
    if ((!isNew && ::fchmod(file.get(), mode) != 0) ||
        ::renameat(root, newName, root, rulesName) != 0) {
        const int error = errno;
        ::unlinkat(root, newName, 0);
        fail(error);
    }
}

} // namespace quendo::git
