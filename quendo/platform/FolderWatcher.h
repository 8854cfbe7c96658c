#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UniqueFunction.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <functional>
#include <memory>
#include <string>

namespace quendo::platform {

/// What has happened in a watched folder.
struct FolderEvent {
    enum class Kind {
        Appeared, ///< a file or folder directly in it was made or moved there
        Changed,  ///< the content or the attributes of one of them changed, or its own attributes
        Vanished, ///< one of them was deleted or moved away
        /// Anything may have changed at `path` and below it: events were lost, or the folder itself
        /// was deleted, moved, replaced or unmounted, or has come back. Look.
        ContentsUnknown,
    };

    Kind kind;
    Path path;
    bool polled = false; ///< found by looking: may be older than lines reached before, see fence()
};

/// How well a folder is watched.
struct WatchHealth {
    enum class Means {
        NotWatched, ///< nothing watches it
        Polled,     ///< it is looked at from time to time: changes are told seconds later
        Native,     ///< the system tells its changes as they happen, or that the folder comes
    };

    Means means = Means::NotWatched;
    std::string reason; ///< why it is not native, and what can be done; one line for people

    friend bool operator==(const WatchHealth&, const WatchHealth&) = default;
};

/// Where the events of folders come from. A host that has a source of its own implements this.
///
/// Threads: any. Callbacks and health notices come one at a time, from a thread of the watcher's
/// own, and hold no lock of it; they must be quick, and may call everything here and drop watches.
/// watch(), fence() and getHealth() wait for no callback.
class QUENDO_API FolderWatcher {
public:
    using Callback = std::function<void(const FolderEvent&)>;
    using HealthSlot = boost::signals2::slot<void(const Path& folder, const WatchHealth&)>;

    /// Ends the watch when it is destroyed: no callback of it begins after that, and none runs any
    /// more unless it is the one that destroys it.
    class QUENDO_API Watch {
    public:
        virtual ~Watch();
    };

    /// What of a folder is told. That it was deleted may be told late, when the last process has
    /// closed it that holds it open or works in it; at once when its parent is watched too, in
    /// either scope. That a folder above it was renamed is told when that one is watched.
    enum class Scope {
        Entries, ///< what lies directly in it, and what becomes of the folder itself
        Itself,  ///< only what becomes of the folder itself
    };

    virtual ~FolderWatcher();

    /// Tells what happens to `folder` from now on: whatever changes after watch() has returned is
    /// told, or is told as ContentsUnknown. A folder that cannot be watched natively, or that is
    /// not there, is polled, and watched natively as soon as that can be; see getHealth().
    /// @throws std::bad_alloc; a host's own watcher may refuse with
    ///         ChangeEventsSubscriptionException
    virtual std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback) = 0;

    /// Draws a line through what happens: `reached` is called once, as a callback of its own, after
    /// the callbacks for all that happened before this call and before those for all that happens
    /// after it has returned. Exact for folders that are watched natively: what the system still
    /// holds is taken in here, by the calling thread or in an order that cannot be mistaken. What
    /// is polled is not looked at for this, so a change before the line may be told behind it,
    /// marked as polled. Lines are reached in the order in which they were drawn, also when nothing
    /// is watched.
    /// @throws std::bad_alloc, std::system_error; `reached` has been destroyed uncalled then
    virtual void fence(UniqueFunction<void()> reached) = 0;

    /// For a folder that is watched, by whomever; NotWatched for any other.
    virtual WatchHealth getHealth(const Path& folder) const = 0;

    /// Called when the health of a watched folder changes after watch() has returned.
    virtual boost::signals2::connection connectHealthChanged(const HealthSlot& slot) = 0;
};

} // namespace quendo::platform
