#pragma once

#include "quendo/adapter/BranchInformation.h"
#include "quendo/platform/Export.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <exception>
#include <memory>
#include <optional>

namespace quendo {

class CMAdapter;

/// What a BranchStateCache knows.
struct CachedBranchState {
    /// As it was read last. Empty until the first read has succeeded.
    std::optional<BranchState> state;

    /// Why the newest read failed; null when it succeeded, and before the first one. `state` is
    /// that of an earlier read then.
    std::exception_ptr error;

    /// A read is queued or running, so a newer state may follow.
    bool isRefreshing = false;
};

/// The last known branch state of a working copy, kept up in the background. A managed folder has
/// one (ManagedFolder::getBranchStateCache()).
///
/// It reads nothing until somebody uses it. From then on it reads again after each operation of the
/// folder's adapter that raises a signal (EventBroadcastingCMAdapter), after each status trigger,
/// and when the working copy's root goes or comes back. discardChanges() and external changes give
/// the status trigger, a quarter of a second later; while change detection is switched off they do
/// not, so call refresh() afterwards. Requests that come during a read are answered by one more.
/// A failed read is retried after a second, and then after twice the time before, at most a minute.
///
/// Threads: any.
class QUENDO_API BranchStateCache {
public:
    using ChangedSlot = boost::signals2::slot<void(const CachedBranchState&)>;

    virtual ~BranchStateCache();

    /// What is known now. Waits for no read; the first call starts one.
    virtual CachedBranchState getBranchState() = 0;

    /// Called when `state` or the text of `error` has changed; the first connection starts a read.
    /// Slots run one at a time on a strand of the cache's own, without a lock; what they throw is
    /// logged. They must hold weakly what may go before the folder.
    virtual boost::signals2::connection connectChanged(const ChangedSlot& slot) = 0;

    /// Reads again in the background, if somebody has used the cache before.
    virtual void refresh() noexcept = 0;
};

/// @return null when there is no adapter, or it offers no BranchInformation. The cache holds the
///         adapter weakly, and strongly during a read. Destroying it disconnects the slots and
///         waits for nothing.
QUENDO_API std::unique_ptr<BranchStateCache>
createBranchStateCache(const std::shared_ptr<CMAdapter>& adapter);

} // namespace quendo
