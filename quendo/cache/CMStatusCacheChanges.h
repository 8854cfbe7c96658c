#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace quendo {

/// One path whose cached state changed. At least one of the states is there, and they differ.
struct StatusChange {
    Path path;
    std::optional<FileState> before; ///< empty when the path was not in the cache
    std::optional<FileState> after;  ///< empty when it has left the cache
};

/// What one update changed: each path once, in no order.
struct StatusChanges {
    std::uint64_t version = 0; ///< the version of the contents that these changes made
    std::vector<StatusChange> changes;
};

/// The contents of a status cache at one moment.
struct StatusListing {
    std::uint64_t version = 0;
    std::vector<std::pair<Path, FileState>> states; ///< in no order
};

/// Which paths changed, and how. An optional interface of a CMStatusCache; reach it with
/// dynamic_cast.
///
/// To follow the contents without a gap, also while updates go on: connect first, then list, and
/// drop each notice whose version is not above the listing's, because the listing has its changes
/// already. The slot may be called before the listing is there: keep the notices until then. What
/// is left is every later update, once and in order.
///
/// Threads: any; no operation waits for a refresh.
class QUENDO_API CMStatusCacheChanges {
public:
    using Slot = boost::signals2::slot<void(const StatusChanges&)>;

    virtual ~CMStatusCacheChanges();

    /// Called after each update that changed something, in the order of the updates, on the cache's
    /// strand and before the notice of connectCacheChanged(). Who is connected when the contents
    /// change is told of that change. What is collected for it costs nothing while nobody is
    /// connected.
    virtual boost::signals2::connection connectChanges(const Slot& slot) = 0;

    /// `folder` and everything below it, as one update left it. Costs what it lists.
    virtual StatusListing listStatuses(const Path& folder) const = 0;
};

} // namespace quendo
