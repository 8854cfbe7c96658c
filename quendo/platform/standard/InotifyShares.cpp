#include "quendo/platform/Logging.h"
#include "quendo/platform/standard/InotifyFolderWatcherImpl.h"

// Who gets a watch
//
// The kernel allows a user so many watches. WatchBudget says how many of them this process takes.
// Folders that get none are polled, and ask for one at each pass, so what others give back is used.
//
// While some lack watches, the budget is shared fairly between the working copies (Group): one that
// wants fewer than an equal share has all of them, and the others have equally many. When one of
// them has more, because it was there first, the watches that it got last are taken away, as many
// as the others lack: not while watch() runs, but within a poll interval. The lane that polls lists
// the folders and then draws a line (fence()); the watches are taken when that is reached. So what
// the listings show has been told by then, what happens later is found by comparing with them, and
// nothing has to be told as unknown.

namespace quendo::platform {

void InotifyFolderWatcher::Impl::count(const Record& record, bool in) noexcept {
    const auto change = [in](std::size_t& number) { in ? ++number : --number; };
    if (record.watch >= 0)
        change(record.group->watched);
    if (record.isLacking) {
        change(record.group->lacking);
        change(lacking);
    }
}

bool InotifyFolderWatcher::Impl::mayAdd(const Record& record) const {
    // Those that are being added may turn out to be there already: then it is polled for a while.
    return byWatch.size() + static_cast<std::size_t>(adding.load()) < budget.most() &&
           record.group->watched < record.group->most;
}

/// Finds out what each working copy may have, if any lacks watches.
/// @return those whose watches are to be taken away now
std::vector<InotifyFolderWatcher::Impl::RecordPtr>
InotifyFolderWatcher::Impl::shareWatches(Clock::time_point now) {
    std::vector<RecordPtr> result;
    if (now < nextSharing || session == nullptr || isTakingAway || (lacking == 0 && !isShared))
        return result;
    isShared = lacking != 0;
    std::vector<std::shared_ptr<Group>> living;
    std::vector<std::size_t> wanted;
    for (const auto& each : groups)
        if (const auto group = each.lock()) {
            group->most = SIZE_MAX;
            wanted.push_back(group->watched + group->lacking);
            living.push_back(group);
        }
    if (!isShared)
        return result;
    nextSharing = now + options.pollInterval;
    budget.refresh(now);
    const auto share = fairShare(wanted, budget.most());
    std::size_t missing = 0;
    for (const auto& group : living) {
        const auto due = std::min(group->watched + group->lacking, share);
        missing += due - std::min(due, group->watched);
    }
    for (const auto& group : living)
        if (missing != 0)
            group->most = share;
    auto excess = missing + byWatch.size();
    excess -= std::min(excess, budget.most());
    std::ranges::sort(living, std::ranges::greater(), &Group::watched);
    for (const auto& group : living) {
        const auto some = std::min(excess, group->watched - std::min(group->watched, share));
        if (some == 0)
            break;
        auto rich = recordsFrom(group->root);
        std::erase_if(rich, [&](const auto& record) {
            return record->group != group || record->watch < 0 || record->folder == group->root;
        });
        // The kernel counts upwards.
        std::ranges::sort(rich, std::ranges::greater(),
                          [](const auto& record) { return record->watch; });
        rich.resize(std::min(rich.size(), some));
        excess -= rich.size();
        result.insert(result.end(), rich.begin(), rich.end());
    }
    isTakingAway = !result.empty();
    return result;
}

/// In the lane that polls: lists the folders whose watches are to be taken, and draws the line
/// behind which that is done.
void InotifyFolderWatcher::Impl::listTaken(const std::vector<RecordPtr>& from) {
    try {
        std::vector<Taken> all;
        for (const auto& record : from) {
            std::unique_lock lock(mutex);
            if (record->watch < 0 || record->subscriptions.empty())
                continue;
            auto& taken = all.emplace_back(Taken{record, record->watch});
            const bool wantsEntries = record->wantsEntries();
            const bool isRemote = record->isRemote();
            lock.unlock();
            if (!isRemote)
                taken.listing = options.calls->list(record->native, wantsEntries, [] {});
        }
        fence([self = shared_from_this(), all = std::move(all)]() mutable {
            self->takeWatches(all);
        });
    } catch (const std::exception&) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        const std::lock_guard lock(mutex);
        isTakingAway = false;
    }
}

/// On the dispatcher, when all that happened before the folders were listed has been told.
void InotifyFolderWatcher::Impl::takeWatches(std::vector<Taken>& all) {
    const std::lock_guard lock(mutex);
    try {
        for (auto& [record, watch, listing] : all) {
            if (record->watch != watch || record->subscriptions.empty())
                continue;
            std::list<Look> entry;
            auto& look = entry.emplace_back();
            look.record = record;
            look.lane = record->lane;
            if (listing)
                record->listing = std::move(listing);
            count(*record, false);
            detach(*record);
            record->isLacking = true;
            record->reason = shareReason;
            count(*record, true);
            look.number = record->settled = ++record->begun;
            findings.splice(findings.end(), entry);
        }
    } catch (const std::exception&) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
    isTakingAway = false;
    wake();
}

} // namespace quendo::platform
