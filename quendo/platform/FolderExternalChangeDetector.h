#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/ScopeGuard.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <chrono>
#include <functional>
#include <memory>

namespace quendo {

class OwnWrites;

/// Notices that somebody else changed a folder, at any depth, and tells so once for a burst of
/// changes: the first change starts a window, and its end brings one notification.
///
/// Paths that the filter refuses count for nothing; of a folder that it refuses, what lies below is
/// not looked at. The filter decides by the path's text and is called from any thread. A folder
/// that vanishes and comes back is watched again.
///
/// When a callback throws std::bad_alloc or std::system_error, for want of memory or of a thread,
/// all are called again later.
///
/// Threads: any. Callbacks come from a thread of the detector's own, one at a time. The constructor
/// lists the folder on the calling thread; later that is done on a strand.
///
/// Ownership: the destructor waits for no callback, so it may be called with any lock held. No
/// callback begins after it, but one that runs may end later. So a callback holds what it uses, or
/// holds it weakly (slot::track_foreign()).
class QUENDO_API FolderExternalChangeDetector {
public:
    using Slot = boost::signals2::slot<void()>;
    using Filter = std::function<bool(const Path&)>;

    /// @param window the time from the first change of a burst to its notification
    /// @throws ChangeEventsSubscriptionException when a host's own folder watcher refuses
    FolderExternalChangeDetector(const Path& folder, std::chrono::milliseconds window,
                                 Filter filter);
    ~FolderExternalChangeDetector();
    FolderExternalChangeDetector(const FolderExternalChangeDetector&) = delete;
    FolderExternalChangeDetector& operator=(const FolderExternalChangeDetector&) = delete;

    boost::signals2::connection onChange(const Slot& slot);

    /// Disregards changes from now until the guard is released, whenever they are told. Changes
    /// before this call still bring their notification. A plain switch: the first guard that is
    /// released turns detection on again, and so does a failure to make one.
    ///
    /// Waits for nothing; the release waits until all that was changed has been looked at, a tenth
    /// of a second at most. Guards may outlive the detector. Exact where the folder watcher is: of
    /// what is only polled nobody knows when it happened, so it counts in any case.
    /// @throws std::bad_alloc, std::system_error; detection is on then
    [[nodiscard]] scope_guard disable();

    /// The same for one operation that the caller starts and that ends before the guard is
    /// released: disregards what it writes, as `writes` gets to know that. Until then all that
    /// happens counts as written by it. Its end also ends every suspension by the other form, as
    /// its guard does.
    /// @param writes set; mark the thread with OwnWrites::Scope while the operation runs
    [[nodiscard]] scope_guard disable(std::shared_ptr<OwnWrites>& writes);

private:
    struct Impl;
    const std::shared_ptr<Impl> m_impl;
};

} // namespace quendo
