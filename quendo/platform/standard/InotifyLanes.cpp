#include "quendo/platform/Logging.h"
#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

#include <system_error>

// Lanes
//
// A call on a file system whose server does not answer may not return for minutes, or at all. So
// no such call is made on a thread that works for other folders, or under a lock.
//
// Which file systems may do that is read from the mount table, which touches none of them
// (MountTable). A lane stands for each of them that is in use: a FileSystemWorker, on which all
// looks at its folders are taken, those for watch() first. The dispatcher hands records to it and
// delivers what it found. One more lane polls the local folders that cannot be watched, so that
// listing them does not delay events; all other looks at local folders are taken where they are
// needed.
//
// A call that has not returned after `patience` makes the lane count as hanging: its folders are
// not watched then, which their health says, and watch() does not wait for it. When a call has
// returned after all, every folder of the lane is looked at and told as ContentsUnknown. A lane
// that hangs holds one thread. It keeps that when its file system is unmounted by force and another
// is mounted in its place, which gets a lane of its own.
//
// Not covered: a local file system over a remote one (a loop device, an overlay), and a folder
// that is replaced by a link to a remote file system between the look at the mount table and the
// call.

namespace quendo::platform {

/// In the lane: a look that was queued.
void InotifyFolderWatcher::Impl::lookInLane(const RecordPtr& record,
                                            const std::shared_ptr<Lane>& lane) {
    std::unique_lock lock(mutex);
    if (record->subscriptions.empty() || record->lane != lane || !record->queued)
        return;
    const auto why = *std::exchange(record->queued, std::nullopt);
    try {
        std::list<Look> entry;
        auto& look = entry.emplace_back(beginLook(record, why));
        lock.unlock();
        perform(look);
        lock.lock();
        hasProgressed(*lane);
        const bool isAwaited = record->settled == 0 && !record->isOwed;
        settle(look);
        looked.notify_all();
        if (isAwaited)
            return keepFirst(look);
        findings.splice(findings.end(), entry);
        wake();
    } catch (const std::exception&) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        if (!lock.owns_lock())
            lock.lock();
        record->isOwed = true; // when it is polled
    }
}

/// In the lane: looks at polled folders, until the time of a slice is up.
void InotifyFolderWatcher::Impl::pollSlice(const std::shared_ptr<Lane>& lane) {
    const auto begin = Clock::now();
    std::unique_lock lock(mutex);
    if (lane->polls.begin(begin)) {
        try {
            while (const auto* next = lane->polls.next()) {
                const RecordPtr record = *next;
                lock.unlock();
                const auto remote = findRemote(record->native);
                lock.lock();
                if (record->subscriptions.empty())
                    continue;
                if (remote != lane->remote) {
                    suspect(record); // the dispatcher puts it where it belongs
                    continue;
                }
                std::list<Look> entry;
                auto& look = entry.emplace_back(beginLook(record, Visit::Check));
                lock.unlock();
                perform(look);
                lock.lock();
                hasProgressed(*lane);
                settle(look);
                looked.notify_all();
                findings.splice(findings.end(), entry);
                if (Clock::now() - begin >= Polls::slice)
                    break;
            }
        } catch (const std::exception&) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // the next pass comes by there again
            if (!lock.owns_lock())
                lock.lock();
        }
        lane->polls.end(begin, Clock::now());
    }
    lane->isPolling = false;
    if (records.empty())
        mounts.close();
    wake();
}

/// Under the mutex, when a look of the lane has returned.
void InotifyFolderWatcher::Impl::hasProgressed(Lane& lane) {
    if (!lane.isHanging)
        return;
    lane.isHanging = false;
    lane.hasAnswered = true;
    lane.check = Clock::now() + options.patience; // the next task may hang again
    wake();
}

/// Under the mutex: when the dispatcher has something to do with lanes, or to tell again.
std::optional<InotifyFolderWatcher::Impl::Clock::time_point>
InotifyFolderWatcher::Impl::nextTime() const {
    std::optional<Clock::time_point> result;
    const auto consider = [&](const std::optional<Clock::time_point>& time) {
        if (time && (!result || *time < *result))
            result = time;
    };
    for (const auto& [id, lane] : lanes) {
        if (!lane->isPolling)
            consider(lane->polls.nextSlice());
        consider(lane->check);
    }
    if (!untold.empty())
        consider(tellAgain);
    return result;
}

/// On the dispatcher: begins the slices that are due, and finds out which lanes hang, and which
/// answer again.
void InotifyFolderWatcher::Impl::serveLanes() {
    std::vector<std::shared_ptr<Lane>> due;
    std::vector<RecordPtr> changed, answered, rich;
    std::vector<std::pair<Path, WatchHealth>> health;
    const auto now = Clock::now();
    std::shared_ptr<Lane> local;
    {
        const std::lock_guard lock(mutex);
        rich = shareWatches(now);
        local = laneOf(std::nullopt);
        for (auto at = lanes.begin(); at != lanes.end();) {
            const auto& lane = at->second;
            if (lane->remote && lane.use_count() == 1 && !lane->hasTasks()) {
                at = lanes.erase(at);
                continue;
            }
            if (lane->check && now >= *lane->check) {
                const auto since = lane->busySince();
                lane->check.reset();
                if (since && now - *since >= options.patience) {
                    lane->isHanging = true;
                    changed = recordsOf(*lane);
                    notices.push_back("The file system at " +
                                      Path::fromNative(lane->remote->point).toUtf8() +
                                      " does not answer. Its " + std::to_string(changed.size()) +
                                      " watched folders are not watched until it does.");
                    for (const auto& record : changed)
                        if (updateHealth(record))
                            health.emplace_back(record->folder, record->health);
                } else if (lane->hasTasks()) {
                    lane->check = (since ? *since : now) + options.patience;
                }
            }
            if (std::exchange(lane->hasAnswered, false)) {
                const auto some = recordsOf(*lane);
                answered.insert(answered.end(), some.begin(), some.end());
                notices.push_back("The file system at " +
                                  Path::fromNative(lane->remote->point).toUtf8() +
                                  " answers again.");
            }
            if (const auto slice = lane->polls.nextSlice();
                !lane->isPolling && slice && now >= *slice)
                due.push_back(lane);
            ++at;
        }
        if (!notices.empty())
            wake();
        for (const auto& lane : due) {
            lane->isPolling = true;
            if (lane->remote && !lane->check && !lane->isHanging)
                lane->check = now + options.patience;
        }
    }
    if (!rich.empty()) {
        try {
            local->post([self = shared_from_this(), rich] { self->listTaken(rich); }, true);
        } catch (const std::exception&) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            const std::lock_guard lock(mutex);
            isTakingAway = false;
        }
    }
    for (const auto& lane : due) {
        try {
            lane->post([self = shared_from_this(), lane] { self->pollSlice(lane); }, false);
        } catch (const std::exception&) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
            const std::lock_guard lock(mutex);
            lane->isPolling = false;
            lane->polls.restUntil(now + options.pollInterval);
        }
    }
    for (const auto& [folder, what] : health)
        tellHealth(folder, what);
    for (const auto& record : answered)
        visit(record, Visit::Suspect);
}

} // namespace quendo::platform
