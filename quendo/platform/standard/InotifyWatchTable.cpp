#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

#include <system_error>

namespace quendo::platform {
namespace {

constexpr std::uint32_t selfMask = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t comingAndGoingMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// IN_CLOSE_WRITE is all that tells of writing through mapped memory.
constexpr std::uint32_t entriesMask =
    selfMask | comingAndGoingMask | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;

/// What the text of every path below `folder` begins with.
UString textOfBelow(const Path& folder) {
    UString text(folder.string());
    if (!text.ends_with(u'/'))
        text += u'/';
    return text;
}

std::string reasonOf(int error) {
    switch (error) {
    case ENOSPC:
        return "the limit of watched folders is reached; raise fs.inotify.max_user_watches";
    case EMFILE:
    case ENFILE:
        return "no inotify instance can be had; raise fs.inotify.max_user_instances or the limit "
               "of open files";
    case ENOMEM:
        return "the system has no memory for watching it; free some";
    case EACCES:
        return "it may not be read; give the permission to read it";
    case ENOENT:
        return "it is not there; it is watched when it comes";
    case ENOTDIR:
        return "it is no folder; a symbolic link has to be resolved first";
    default:
        return "the system refuses to watch it: " + std::generic_category().message(error);
    }
}

constexpr const char* remoteReason =
    "it lies in a file system that others change unseen; their changes are told when it is polled";

} // namespace

/// Adds the watch by path, for all that is wanted of the folder by now.
/// @return whether that changed anything: the folder is another, or is watched no longer, or at
/// last
bool InotifyFolderWatcher::Impl::arm(const std::shared_ptr<Record>& record) {
    const auto mask = maskOf(*record);
    int number = -1;
    int error = startSession();
    if (error == 0) {
        number =
            ::inotify_add_watch(session->inotify.get(), record->native.c_str(),
                                mask | IN_MASK_ADD | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK);
        error = number < 0 ? errno : 0;
    }
    if (number < 0)
        record->reason = error == EAGAIN ? noThreadReason : reasonOf(error);
    record->isAwaited = error == ENOENT || error == ENOTDIR;
    record->isClosed = error == EACCES;
    if (error == ENOSPC && !std::exchange(limitReached, true))
        notice = "Folders are polled instead of watched, the first of them " +
                 record->folder.toUtf8() + ": " + record->reason;
    if (number == record->watch) {
        record->mask |= mask;
        return false;
    }
    if (number >= 0)
        byWatch[number].push_back(record);
    detach(*record);
    record->watch = number;
    record->mask = mask;
    return true;
}

/// Asks for further events when more is wanted of the folder than before.
void InotifyFolderWatcher::Impl::widen(const std::shared_ptr<Record>& record) {
    if (record->watch < 0 || (maskOf(*record) & ~record->mask) == 0)
        return;
    suspects.reserve(suspects.size() + 1);
    if (arm(record)) {
        suspects.push_back(record);
        wake();
    }
}

/// Watches what came below `folder` before that was watched: its coming is told by nobody.
void InotifyFolderWatcher::Impl::armAwaitedBelow(const Path& folder) {
    for (const auto& record : recordsFrom(folder)) {
        suspects.reserve(suspects.size() + 1);
        if (record->isAwaited && arm(record)) {
            suspects.push_back(record);
            wake();
        }
    }
}

void InotifyFolderWatcher::Impl::detach(Record& record) noexcept {
    if (const auto found = byWatch.find(record.watch); found != byWatch.end()) {
        std::erase_if(found->second, [&](const auto& each) { return each.get() == &record; });
        if (found->second.empty()) {
            byWatch.erase(found);
            // Fails when the kernel removed it before.
            ::inotify_rm_watch(session->inotify.get(), record.watch);
        }
    }
    record.watch = -1;
}

std::uint32_t InotifyFolderWatcher::Impl::maskOf(const Record& record) const {
    if (record.wantsEntries())
        return entriesMask;
    const auto beginning = textOfBelow(record.folder);
    const auto below = records.lower_bound(Path(beginning));
    return below != records.end() && below->first.string().starts_with(beginning)
               ? selfMask | comingAndGoingMask
               : selfMask;
}

void InotifyFolderWatcher::Impl::setHealth(Record& record, WatchHealth health) {
    record.health = std::move(health);
    const bool counts = record.health.means == WatchHealth::Means::NotWatched || record.isPolled();
    if (std::exchange(record.isCounted, counts) == counts)
        return;
    if (!counts) {
        --notNative;
    } else if (notNative++ == 0) {
        nextRound = std::chrono::steady_clock::now() + options.pollInterval;
        wake();
    }
}

/// @return whether it changed
bool InotifyFolderWatcher::Impl::updateHealth(Record& record) {
    using Means = WatchHealth::Means;
    WatchHealth health{Means::Native, {}};
    if (record.isPolled() && !isComingTold(record))
        health = {Means::Polled, record.watch < 0 ? record.reason : remoteReason};
    const bool hasChanged = health != record.health;
    setHealth(record, std::move(health)); // whether it is polled may have changed in any case
    return hasChanged;
}

/// Whether nothing lies at the record's path, and events tell when a folder comes there. It is
/// polled nevertheless, because those watches may end.
bool InotifyFolderWatcher::Impl::isComingTold(const Record& record) const {
    if (!record.isAwaited)
        return false;
    const auto parent = records.find(record.folder.parentPath());
    return parent != records.end() && parent->second.get() != &record &&
           (!parent->second->isPolled() || isComingTold(*parent->second));
}

/// The records at `folder` and below it, parents first.
std::vector<std::shared_ptr<InotifyFolderWatcher::Impl::Record>>
InotifyFolderWatcher::Impl::recordsFrom(const Path& folder) const {
    std::vector<std::shared_ptr<Record>> result;
    if (const auto at = records.find(folder); at != records.end())
        result.push_back(at->second);
    const auto beginning = textOfBelow(folder);
    for (auto at = records.lower_bound(Path(beginning));
         at != records.end() && at->first.string().starts_with(beginning); ++at)
        if (at->first != folder)
            result.push_back(at->second);
    return result;
}

} // namespace quendo::platform
