#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

#include <cstdlib>
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

/// When there are more, each look that is under way is taken to have missed something.
constexpr std::size_t mostStrays = 65'536;

} // namespace

// -- Where a record belongs

std::optional<Mount> InotifyFolderWatcher::Impl::findRemote(const std::string& native) {
    return mounts.get()->findRemote(
        native, [this](const std::string& path) { return options.calls->readLink(path); });
}

std::shared_ptr<InotifyFolderWatcher::Impl::Lane>
InotifyFolderWatcher::Impl::laneOf(const std::optional<Mount>& remote) {
    auto& lane = lanes[remote ? remote->id + ' ' + remote->point : std::string()];
    if (lane == nullptr)
        lane = std::make_shared<Lane>(pool.createStrand(remote ? "quendo-mount" : "quendo-poll"),
                                      remote, options.pollInterval);
    return lane;
}

void InotifyFolderWatcher::Impl::setLane(const RecordPtr& record, std::shared_ptr<Lane> lane) {
    if (record->lane == lane)
        return;
    Polls::Place place;
    if (record->place) {
        place = lane->polls.add(record->group->root, record, Clock::now());
        record->lane->polls.remove(record->place);
    }
    record->place = std::move(place);
    record->lane = std::move(lane);
    record->queued.reset();
}

/// Puts a record into the group of the nearest folder, itself or above, that is watched for
/// itself: that is the root of its working copy.
void InotifyFolderWatcher::Impl::setGroup(const RecordPtr& record, Scope scope) {
    const auto isRoot = [](const Record& each) { return each.group->root == each.folder; };
    if (scope == Scope::Itself) {
        if (record->group != nullptr && isRoot(*record))
            return;
        const auto group = makeGroup(record->folder);
        for (const auto& each : recordsFrom(record->folder))
            if (each->group == nullptr || !each->group->root.isBelow(record->folder))
                moveToGroup(each, group);
        return;
    }
    if (record->group != nullptr)
        return;
    for (auto above = record->folder.parentPath(); !above.empty(); above = above.parentPath())
        if (const auto at = records.find(above); at != records.end()) {
            record->group = at->second->group;
            return;
        }
    record->group = makeGroup(record->folder);
}

void InotifyFolderWatcher::Impl::moveToGroup(const RecordPtr& record,
                                             const std::shared_ptr<Group>& group) {
    if (record->place) {
        auto place = record->lane->polls.add(group->root, record, Clock::now());
        record->lane->polls.remove(record->place);
        record->place = std::move(place);
    }
    if (record->group != nullptr)
        count(*record, false);
    record->group = group;
    count(*record, true);
}

std::shared_ptr<InotifyFolderWatcher::Impl::Group>
InotifyFolderWatcher::Impl::makeGroup(const Path& root) {
    auto group = std::make_shared<Group>(root);
    if (groups.size() == groups.capacity())
        std::erase_if(groups, [](const auto& each) { return each.expired(); });
    groups.push_back(group);
    return group;
}

// -- Looking at a folder

/// Begins to add the watch by path, for all that is wanted of the folder by now.
InotifyFolderWatcher::Impl::Look InotifyFolderWatcher::Impl::beginLook(const RecordPtr& record,
                                                                       Visit why) {
    Look look;
    look.record = record;
    look.lane = record->lane;
    look.why = why;
    look.mask = maskOf(*record);
    look.wantsEntries = record->wantsEntries();
    look.wasPolled = record->isPolled();
    look.continues = record->watch < 0 && record->listing.has_value();
    look.error = startSession();
    if (look.error == 0 && record->watch < 0 && !mayAdd(*record)) {
        look.isRefused = true;
        look.error = ENOSPC;
    }
    if (look.error == 0) {
        look.session = session;
        look.counted.reserve(2);
        look.counted.emplace_back(adding);
        if (!record->isRemote())
            look.counted.emplace_back(addingLocal);
    }
    look.number = ++record->begun;
    look.strayEvents = strayEvents;
    return look;
}

/// Without the mutex; of a remote file system in its lane.
void InotifyFolderWatcher::Impl::perform(Look& look) const {
    const bool isRemote = look.lane->remote.has_value();
    const auto progress = [&] {
        if (isRemote)
            look.lane->progress();
    };
    const auto& folder = look.record->native;
    if (look.session != nullptr) {
        const int result = options.calls->addWatch(look.session->inotify.get(), folder,
                                                   look.mask | IN_MASK_ADD | IN_ONLYDIR |
                                                       IN_DONT_FOLLOW | IN_EXCL_UNLINK);
        progress();
        (result >= 0 ? look.watch : look.error) = std::abs(result);
    }
    if (look.watch < 0 || isRemote || look.continues)
        look.listing = options.calls->list(folder, look.wantsEntries, progress);
}

/// Puts the watch that a look has got into the table.
void InotifyFolderWatcher::Impl::settle(Look& look) {
    auto& record = *look.record;
    const bool isCurrent = look.session == nullptr || look.session == session;
    const bool counts = isCurrent && look.number > record.settled && !record.subscriptions.empty();
    if (counts) {
        count(record, false);
        record.settled = look.number;
        record.isLacking = look.watch < 0 && look.error == ENOSPC;
        if (record.isLacking && !look.isRefused)
            budget.refused(byWatch.size(), Clock::now());
        if (look.watch < 0)
            record.reason = look.isRefused         ? shareReason
                            : look.error == EAGAIN ? noThreadReason
                                                   : reasonOf(look.error);
        record.isAwaited = look.watch < 0 && (look.error == ENOENT || look.error == ENOTDIR);
        record.isClosed = look.watch < 0 && look.error == EACCES;
        if (look.watch < 0 && look.error == ENOSPC && !std::exchange(limitReached, true))
            notices.push_back("Folders are polled instead of watched, the first of them " +
                              record.folder.toUtf8() + ": " + record.reason);
        if (look.watch == record.watch) {
            record.mask |= look.mask;
        } else {
            if (look.watch >= 0)
                byWatch[look.watch].push_back(look.record);
            detach(record);
            record.watch = look.watch;
            record.mask = look.mask;
            look.isOther = true;
        }
        count(record, true);
        if (look.watch >= 0 && hasMissed(look))
            suspect(look.record);
    }
    look.counted.clear();
    if (!counts && isCurrent && look.watch >= 0 && !byWatch.contains(look.watch))
        removeWatch(look.watch, *look.lane);
    if (adding == 0)
        strays.clear();
    if (addingLocal == 0)
        for (const int orphan : std::exchange(orphans, {}))
            if (!byWatch.contains(orphan))
                ::inotify_rm_watch(session->inotify.get(), orphan);
}

/// Remembers an event of a watch that a record may get by a look under way.
void InotifyFolderWatcher::Impl::noteStray(int watch, bool isLost) {
    if (adding == 0)
        return;
    ++strayEvents;
    if (strays.size() >= mostStrays) {
        straysForgot = strayEvents;
        strays.clear();
    }
    auto& stray = strays[watch];
    stray.any = strayEvents;
    if (isLost)
        stray.lost = strayEvents;
}

/// Whether the watch that a look has got may have ended before it had its place in the table, or
/// have told what the look's listing does not show.
bool InotifyFolderWatcher::Impl::hasMissed(const Look& look) const {
    if (straysForgot > look.strayEvents)
        return true;
    const auto stray = strays.find(look.watch);
    return stray != strays.end() &&
           (look.continues ? stray->second.any : stray->second.lost) > look.strayEvents;
}

/// Looks at records on the calling thread, those of remote file systems excepted, which it hands
/// to their lanes. The lock is given up meanwhile.
void InotifyFolderWatcher::Impl::lookNow(std::unique_lock<std::mutex>& lock,
                                         const std::vector<RecordPtr>& targets) {
    std::vector<Look> looks;
    for (const auto& record : targets) {
        if (record->isRemote())
            enqueue(record, Visit::Check);
        else
            looks.push_back(beginLook(record, Visit::Check));
    }
    if (looks.empty())
        return;
    lock.unlock();
    for (auto& look : looks)
        perform(look);
    lock.lock();
    for (auto& look : looks) {
        const auto& record = look.record;
        const bool isFirst = record->settled == 0 && !record->isOwed;
        settle(look);
        if (isFirst)
            keepFirst(look);
        else if (look.isOther || record->isOwed)
            suspect(record);
    }
}

/// Takes what the first look at a folder has found as what it is compared with later.
void InotifyFolderWatcher::Impl::keepFirst(Look& look) {
    look.record->delivered = look.number;
    if (look.record->isPolled())
        look.record->listing = std::move(look.listing);
    updateHealth(look.record);
}

/// Hands a record to the lane of its remote file system.
void InotifyFolderWatcher::Impl::enqueue(const RecordPtr& record, Visit why, bool isUrgent) {
    if (record->queued) {
        record->queued = std::max(*record->queued, why);
        return;
    }
    const auto& lane = record->lane;
    try {
        lane->post([self = shared_from_this(), record, lane] { self->lookInLane(record, lane); },
                   isUrgent);
    } catch (const std::system_error&) {
        record->isOwed = true; // when it is polled
        return;
    }
    record->queued = why;
    if (!lane->check && !lane->isHanging) {
        lane->check = Clock::now() + options.patience;
        wake();
    }
}

/// Lets the dispatcher visit a record.
void InotifyFolderWatcher::Impl::suspect(const RecordPtr& record) {
    suspects.push_back(record);
    wake();
}

/// Whether more is wanted of the folder than its watch was asked for.
bool InotifyFolderWatcher::Impl::needsWidening(const Record& record) const {
    return record.watch >= 0 && (maskOf(record) & ~record.mask) != 0;
}

/// What may have come below `folder` before that was watched: its coming is told by nobody.
std::vector<InotifyFolderWatcher::Impl::RecordPtr>
InotifyFolderWatcher::Impl::awaitedBelow(const Path& folder) const {
    auto result = recordsFrom(folder);
    std::erase_if(result, [](const auto& record) { return !record->isAwaited; });
    return result;
}

void InotifyFolderWatcher::Impl::detach(Record& record) noexcept {
    const int watch = std::exchange(record.watch, -1);
    if (const auto found = byWatch.find(watch); found != byWatch.end()) {
        std::erase_if(found->second, [&](const auto& each) { return each.get() == &record; });
        if (found->second.empty()) {
            byWatch.erase(found);
            removeWatch(watch, *record.lane);
        }
    }
}

/// Removes a watch that no record has; fails when the kernel removed it before. It may be that a
/// look has just got the same one anew: while there are looks, it is kept.
void InotifyFolderWatcher::Impl::removeWatch(int watch, Lane& lane) noexcept {
    const auto remove = [watch](const Session& from) {
        ::inotify_rm_watch(from.inotify.get(), watch);
    };
    try {
        if (!lane.remote) {
            if (addingLocal == 0)
                remove(*session);
            else
                orphans.push_back(watch);
            return;
        }
        // All looks that may get it are taken in that lane, one at a time.
        lane.post(
            [self = shared_from_this(), from = session, watch, remove] {
                {
                    const std::lock_guard lock(self->mutex);
                    if (self->session == from && self->byWatch.contains(watch))
                        return;
                }
                remove(*from);
            },
            false);
    } catch (...) {
        remove(*session);
    }
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

// -- Health

void InotifyFolderWatcher::Impl::setHealth(const RecordPtr& record, WatchHealth health) {
    record->health = std::move(health);
    const bool counts =
        record->health.means == WatchHealth::Means::NotWatched || record->isPolled();
    if (static_cast<bool>(record->place) == counts)
        return;
    auto& polls = record->lane->polls;
    if (!counts) {
        polls.remove(record->place);
        return;
    }
    const auto before = polls.nextSlice();
    record->place = polls.add(record->group->root, record, Clock::now());
    if (before != polls.nextSlice())
        wake();
}

/// @return whether it changed
bool InotifyFolderWatcher::Impl::updateHealth(const RecordPtr& record) {
    using Means = WatchHealth::Means;
    WatchHealth health{Means::Native, {}};
    if (record->isRemote() && (record->lane->isHanging || record->settled == 0))
        health = {Means::NotWatched, "the file system at " +
                                         Path::fromNative(record->lane->remote->point).toUtf8() +
                                         " does not answer; it is watched when that does"};
    else if (record->isPolled() && !isComingTold(*record))
        health = {Means::Polled, record->watch < 0 ? record->reason : remoteReason};
    const bool hasChanged = health != record->health;
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
std::vector<InotifyFolderWatcher::Impl::RecordPtr>
InotifyFolderWatcher::Impl::recordsFrom(const Path& folder) const {
    std::vector<RecordPtr> result;
    if (const auto at = records.find(folder); at != records.end())
        result.push_back(at->second);
    const auto beginning = textOfBelow(folder);
    for (auto at = records.lower_bound(Path(beginning));
         at != records.end() && at->first.string().starts_with(beginning); ++at)
        if (at->first != folder)
            result.push_back(at->second);
    return result;
}

std::vector<InotifyFolderWatcher::Impl::RecordPtr>
InotifyFolderWatcher::Impl::recordsOf(const Lane& lane) const {
    std::vector<RecordPtr> result;
    for (const auto& [folder, record] : records)
        if (record->lane.get() == &lane)
            result.push_back(record);
    return result;
}

} // namespace quendo::platform
