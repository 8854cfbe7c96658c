#include "quendo/git/KeptFiles.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Repository.h"
#include "quendo/platform/OwnWrites.h"
#include "quendo/platform/Path.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace quendo::git {
namespace {

constexpr const char* parentFolder = "quendo";
constexpr const char* keptIndex = "index";
constexpr const char* notedIndex = "index-noted";
constexpr const char* newIndex = "index-new";
constexpr const char* listName = "list";
constexpr const char* indexName = "index";
constexpr const char* indexLock = "index.lock";
constexpr long daysKept = 14;

FileDescriptor openFolder(int from, const char* name) {
    return FileDescriptor(::openat(from, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
}

bool writeAll(int file, const char* data, std::size_t size) {
    while (size > 0) {
        const auto count = ::write(file, data, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// A copy with its mode and times; errno tells why not.
bool copyFile(int from, const std::string& path, int to, const std::string& name) {
    struct stat status;
    if (::fstatat(from, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (S_ISLNK(status.st_mode)) {
        std::array<char, PATH_MAX> target;
        const auto size = ::readlinkat(from, path.c_str(), target.data(), target.size() - 1);
        if (size < 0)
            return false;
        target[static_cast<std::size_t>(size)] = '\0';
        return ::symlinkat(target.data(), to, name.c_str()) == 0;
    }
    const FileDescriptor source(
        ::openat(from, path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    const FileDescriptor copy(
        ::openat(to, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    bool good = source && copy;
    std::array<char, 64 * 1024> buffer;
    while (good) {
        const auto count = ::read(source.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count == 0)
            break;
        good = count > 0 && writeAll(copy.get(), buffer.data(), static_cast<std::size_t>(count));
    }
    const timespec times[] = {status.st_atim, status.st_mtim};
    good = good && ::fchmod(copy.get(), status.st_mode & 07777) == 0 &&
           ::futimens(copy.get(), times) == 0;
    if (!good && copy) {
        const int error = errno;
        ::unlinkat(to, name.c_str(), 0);
        errno = error;
    }
    return good;
}

bool linkOrCopy(int from, const std::string& path, int to, const std::string& name) {
    if (::linkat(from, path.c_str(), to, name.c_str(), 0) == 0)
        return true;
    return errno != ENOENT && errno != ENOSPC && copyFile(from, path, to, name);
}

void makeParents(int root, const std::string& path) {
    for (auto slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
        ::mkdirat(root, path.substr(0, slash).c_str(), 0777);
}

void removeFolder(int parent, const std::string& name) {
    const auto folder = openFolder(parent, name.c_str());
    if (folder) {
        const std::unique_ptr<DIR, int (*)(DIR*)> entries(
            ::fdopendir(::fcntl(folder.get(), F_DUPFD_CLOEXEC, 3)), ::closedir);
        while (const auto* entry = entries ? ::readdir(entries.get()) : nullptr)
            ::unlinkat(folder.get(), entry->d_name, 0);
    }
    ::unlinkat(parent, name.c_str(), AT_REMOVEDIR);
}

} // namespace

KeptFiles::KeptFiles(const Repository& repository)
    : m_repository(repository),
      m_root(::open(repository.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    static std::atomic<unsigned> counter{0};
    const FileDescriptor gitDir(
        ::open(repository.gitDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool isMade = ::mkdirat(gitDir.get(), parentFolder, 0777) == 0 || errno == EEXIST;
    if (isMade)
        m_metadata = openFolder(gitDir.get(), parentFolder);
    m_name = "kept-" + std::to_string(::getpid()) + "-" + std::to_string(::time(nullptr)) + "-" +
             std::to_string(++counter);
    if (m_metadata && ::mkdirat(m_metadata.get(), m_name.c_str(), 0700) == 0)
        m_folder = openFolder(m_metadata.get(), m_name.c_str());
    if (!m_root || !m_folder) {
        const int error = errno;
        throw exception::OperationFailedError(
            "nothing was changed: " + Path::fromNative(repository.gitDir()).toUtf8() +
            " cannot be written to: " + std::strerror(error));
    }
    dropOldOnes();
    const auto index = repository.gitDir() + "/" + indexName;
    m_indexBefore = m_indexAfter = stampOf(AT_FDCWD, index);
    if (m_indexBefore.size >= 0 && !linkOrCopy(AT_FDCWD, index, m_folder.get(), keptIndex)) {
        const int error = errno;
        removeFolder(m_metadata.get(), m_name);
        throw exception::OperationFailedError("nothing was changed: the index cannot be kept: " +
                                              std::string(std::strerror(error)));
    }
}

KeptFiles::~KeptFiles() {
    if (!m_isNeeded)
        removeFolder(m_metadata.get(), m_name);
}

KeptFiles::Stamp KeptFiles::stampOf(int folder, const std::string& path) {
    struct stat status;
    if (::fstatat(folder, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    return {status.st_dev, status.st_ino, status.st_size,
            static_cast<long long>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec};
}

void KeptFiles::keep(const std::vector<std::string>& paths) {
    std::string list;
    for (const auto& path : paths) {
        struct stat status;
        if (::fstatat(m_root.get(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            noteAbsent(path);
            continue;
        }
        if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
            continue;
        const auto name = std::to_string(m_files.size());
        if (!linkOrCopy(m_root.get(), path, m_folder.get(), name))
            throw exception::OperationFailedError(
                "nothing was changed: " + Path::fromNative(path).toUtf8() +
                " cannot be kept while it is worked on: " + std::strerror(errno));
        m_files.push_back({path, stampOf(m_root.get(), path)});
        list += name + "\t" + path + "\n";
    }
    const FileDescriptor file(
        ::openat(m_folder.get(), listName, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!file || !writeAll(file.get(), list.data(), list.size()))
        throw exception::OperationFailedError("nothing was changed: no list of what is kept can be "
                                              "written: " +
                                              std::string(std::strerror(errno)));
}

void KeptFiles::noteAbsent(const std::string& path) {
    if (errno != ENOENT)
        return;
    m_absentFiles.insert(path);
    struct stat status;
    for (auto slash = path.rfind('/'); slash != std::string::npos && slash != 0;
         slash = path.rfind('/', slash - 1)) {
        auto folder = path.substr(0, slash);
        if (m_absentFolders.contains(folder) ||
            ::fstatat(m_root.get(), folder.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
            return;
        m_absentFolders.insert(std::move(folder));
    }
}

// What stands there now is what git wrote before it failed. Of folders only those that are empty
// go.
void KeptFiles::removeWhatWasAbsent() const {
    for (const auto& path : m_absentFiles)
        ::unlinkat(m_root.get(), path.c_str(), 0);
    for (auto folder = m_absentFolders.rbegin(); folder != m_absentFolders.rend(); ++folder)
        ::unlinkat(m_root.get(), folder->c_str(), AT_REMOVEDIR);
}

std::string KeptFiles::fileOf(const char* name) const {
    return m_repository.gitDir() + "/" + parentFolder + "/" + m_name + "/" + name;
}

bool KeptFiles::hasOtherIndex() const {
    return !(stampOf(AT_FDCWD, m_repository.gitDir() + "/" + indexName) == m_indexBefore);
}

std::string KeptFiles::indexFile() const {
    return fileOf(keptIndex);
}

bool KeptFiles::noteIndexIf(
    const std::function<bool(const std::string& noted, const std::string& now)>& isOurs) {
    const auto index = m_repository.gitDir() + "/" + indexName;
    const auto stamp = stampOf(AT_FDCWD, index);
    if (stamp == m_indexAfter)
        return true;
    // git replaces an index and never writes into one, so a link of it stays as it is.
    ::unlinkat(m_folder.get(), newIndex, 0);
    const bool isCopied = stamp.size < 0 || linkOrCopy(AT_FDCWD, index, m_folder.get(), newIndex);
    if (!isCopied || !(stampOf(AT_FDCWD, index) == stamp) ||
        (isOurs && !isOurs(fileOf(m_hasNoted ? notedIndex : keptIndex), fileOf(newIndex))))
        return false;
    ::unlinkat(m_folder.get(), notedIndex, 0);
    ::renameat(m_folder.get(), newIndex, m_folder.get(), notedIndex);
    m_hasNoted = true;
    m_indexAfter = stamp;
    return true;
}

bool KeptFiles::putBack(const File& file, const std::string& name) const {
    if (stampOf(m_root.get(), file.path) == file.stamp)
        return true;
    makeParents(m_root.get(), file.path);
    // Into a name beside it first: what stands there goes in one step.
    if (::renameat(m_folder.get(), name.c_str(), m_root.get(), file.path.c_str()) == 0)
        return true;
    if (errno != EXDEV)
        return false;
    const auto slash = file.path.rfind('/') + 1;
    const auto beside = file.path.substr(0, slash) + "." + m_name;
    return copyFile(m_folder.get(), name, m_root.get(), beside) &&
           ::renameat(m_root.get(), beside.c_str(), m_root.get(), file.path.c_str()) == 0;
}

std::string KeptFiles::restoreIndex() {
    const auto& gitDir = m_repository.gitDir();
    const auto index = gitDir + "/" + indexName, lock = gitDir + "/" + indexLock;
    if (m_leavesIndex || stampOf(AT_FDCWD, index) == m_indexBefore)
        return {};
    const std::string where = Path::fromNative(index).toUtf8();
    // The lock is taken as git takes it: by making its file, where there must be none.
    const bool locked = m_indexBefore.size < 0
                            ? [&] {
                                  const FileDescriptor made(::open(
                                      lock.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
                                  return bool(made);
                              }()
                            : ::linkat(m_folder.get(), keptIndex, AT_FDCWD, lock.c_str(), 0) == 0 ||
                                  (errno != EEXIST &&
                                   copyFile(m_folder.get(), keptIndex, AT_FDCWD, lock));
    if (!locked)
        return where + " could not be put back: " +
               (errno == EEXIST ? "another Git process holds it" : std::strerror(errno));
    if (!(stampOf(AT_FDCWD, index) == m_indexAfter)) {
        ::unlink(lock.c_str());
        return where + " was changed by another Git process and was left so";
    }
    if (m_indexBefore.size < 0) {
        ::unlink(index.c_str());
        ::unlink(lock.c_str());
    } else if (::rename(lock.c_str(), index.c_str()) != 0) {
        ::unlink(lock.c_str());
        return where + " could not be put back";
    }
    return {};
}

std::string KeptFiles::restore() {
    const OwnWrites::Span span;
    std::string problem;
    removeWhatWasAbsent();
    std::size_t lost = 0;
    for (std::size_t i = 0; i < m_files.size(); ++i)
        if (!putBack(m_files[i], std::to_string(i))) {
            if (lost++ == 0)
                problem = Path::fromNative(m_files[i].path).toUtf8() +
                          " could not be put back: " + std::strerror(errno);
        }
    if (lost > 1)
        problem += " (and " + std::to_string(lost - 1) + " more)";
    if (const auto index = restoreIndex(); !index.empty())
        problem += (problem.empty() ? "" : "; ") + index;
    if (lost > 0) {
        m_isNeeded = true;
        problem +=
            "; what it held is kept in " +
            Path::fromNative(m_repository.gitDir() + "/" + parentFolder + "/" + m_name).toUtf8();
    }
    return problem;
}

void KeptFiles::dropOldOnes() const {
    constexpr long secondsOfADay = 24L * 60 * 60;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(
        ::fdopendir(::openat(m_metadata.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        ::closedir);
    while (const auto* entry = entries ? ::readdir(entries.get()) : nullptr) {
        struct stat status;
        if (std::strncmp(entry->d_name, "kept-", 5) == 0 &&
            ::fstatat(m_metadata.get(), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_mtim.tv_sec < ::time(nullptr) - daysKept * secondsOfADay)
            removeFolder(m_metadata.get(), entry->d_name);
    }
}

} // namespace quendo::git
