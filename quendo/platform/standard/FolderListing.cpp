#include "quendo/platform/standard/FolderListing.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::platform {
namespace {

/// Time stamps of files advance in steps of the kernel's tick, 10 ms at most.
constexpr std::int64_t tick = 10'000'000;

std::int64_t nanoseconds(const timespec& time) noexcept {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::int64_t coarseNow() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return nanoseconds(now);
}

bool isSameFile(const FolderListing::Entry& a, const FolderListing::Entry& b) noexcept {
    return a.inode == b.inode && (a.mode & S_IFMT) == (b.mode & S_IFMT);
}

bool isUnchanged(const FolderListing::Entry& a, const FolderListing::Entry& b) noexcept {
    return a.mode == b.mode && a.size == b.size && a.modified == b.modified &&
           a.changed == b.changed;
}

} // namespace

FolderListing FolderListing::take(const std::string& folder, bool withEntries,
                                  const std::function<void()>& progress) {
    FolderListing result;
    struct stat found {};
    const auto failed = [&](int error = errno) {
        // A file or a link is no folder either: nothing was in it, and nothing is.
        result.error = error == ENOTDIR || error == ELOOP ? ENOENT : error;
        return result;
    };
    if (!withEntries) {
        if (::lstat(folder.c_str(), &found) != 0)
            return failed();
        if (!S_ISDIR(found.st_mode))
            return failed(ENOTDIR);
        result.device = found.st_dev;
        result.inode = found.st_ino;
        return result;
    }
    const auto begin = coarseNow();
    const int opened =
        ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (opened < 0)
        return failed();
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(opened), ::closedir);
    if (stream == nullptr) {
        failed();
        ::close(opened);
        return result;
    }
    if (::fstat(opened, &found) != 0)
        return failed();
    result.device = found.st_dev;
    result.inode = found.st_ino;
    result.hasEntries = true;
    result.modified = nanoseconds(found.st_mtim);
    for (;;) {
        progress();
        errno = 0;
        const dirent* const entry = ::readdir(stream.get());
        if (entry == nullptr) {
            if (errno == 0)
                break;
            result.entries.clear();
            return failed();
        }
        const std::string_view name = entry->d_name;
        if (name == "." || name == ".." ||
            ::fstatat(opened, entry->d_name, &found, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        result.entries.push_back({std::string(name), found.st_ino, found.st_mode, found.st_size,
                                  nanoseconds(found.st_mtim), nanoseconds(found.st_ctim)});
    }
    // A server whose clock is ahead must not make all its files young for ever.
    const auto end = coarseNow();
    const auto isYoung = [&](std::int64_t time) {
        return time >= begin - tick && time <= end + tick;
    };
    result.isYoung = isYoung(result.modified);
    for (auto& entry : result.entries)
        entry.isYoung = isYoung(entry.changed);
    std::ranges::sort(result.entries, {}, &Entry::name);
    return result;
}

bool FolderListing::isSameFolder(const FolderListing& other) const noexcept {
    return error == other.error && device == other.device && inode == other.inode &&
           hasEntries == other.hasEntries;
}

void FolderListing::compare(
    const FolderListing& before,
    const std::function<void(FolderEvent::Kind, const std::string&)>& tell) const {
    using Kind = FolderEvent::Kind;
    bool hasOthers = false;
    const auto tellOther = [&](Kind kind, const std::string& name) {
        hasOthers = true;
        tell(kind, name);
    };
    auto old = before.entries.begin();
    for (const auto& entry : entries) {
        for (; old != before.entries.end() && old->name < entry.name; ++old)
            tellOther(Kind::Vanished, old->name);
        if (old == before.entries.end() || old->name != entry.name) {
            tellOther(Kind::Appeared, entry.name);
            continue;
        }
        if (!isSameFile(*old, entry)) {
            tellOther(Kind::Vanished, entry.name);
            tellOther(Kind::Appeared, entry.name);
        } else if (old->isYoung || !isUnchanged(*old, entry)) {
            tell(Kind::Changed, entry.name);
        }
        ++old;
    }
    for (; old != before.entries.end(); ++old)
        tellOther(Kind::Vanished, old->name);
    // Somebody may have seen it in between, and knows the folder as it was then.
    if (!hasOthers && (modified != before.modified || before.isYoung))
        tell(Kind::ContentsUnknown, {});
}

} // namespace quendo::platform
