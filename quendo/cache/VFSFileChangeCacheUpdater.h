#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/ScopeGuard.h"

#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <string>

namespace quendo {

class CMAdapter;
class CMStatusCache;
class StateDependencies;

/// Keeps a status cache in step with the disk: watches every folder that holds cached files, and
/// has the cache ask again for what changes there. VFSFileChangeCacheUpdater.cpp tells how.
///
/// A changed file is asked for alone; a changed metadata file (CMAdapter::getMetadataFiles) brings
/// its folder. Whoever had a path refreshed, the folders above it follow where they have to: one
/// that got its first tracked file or lost its last is asked for too. Nothing is watched when the
/// working copy is the host's installation folder or that one's parent.
///
/// Threads: any. Destroying it ends all watching, and waits for nothing but a handler under way,
/// which is short.
class QUENDO_API VFSFileChangeCacheUpdater {
public:
    /// Watches from now on.
    /// @param adapter asked for its root and the names it treats specially, and not kept
    VFSFileChangeCacheUpdater(std::shared_ptr<CMStatusCache> cache, const CMAdapter& adapter);
    ~VFSFileChangeCacheUpdater();
    VFSFileChangeCacheUpdater(VFSFileChangeCacheUpdater&&) noexcept;
    VFSFileChangeCacheUpdater& operator=(VFSFileChangeCacheUpdater&&) noexcept;

    /// From now on follows what the adapter says its answers depend on elsewhere, and leaves what
    /// lies in nested working copies to that. Once at most; held weakly.
    void follow(std::shared_ptr<StateDependencies> dependencies);

    /// Ends watching for good.
    void stop();

    /// Drops what happens on the disk from now until the guard is released. A plain switch: the
    /// first guard that is released turns it on again, also while others are held. Nothing is made
    /// up for afterwards: refresh what may have changed.
    [[nodiscard]] scope_guard disable();

    /// Why the root cannot be watched, when the event service refused it
    /// (platform::ChangeEventsSubscriptionException); else null.
    std::exception_ptr rootRefusal() const;

    /// Since when the cached state of `path` may be outdated by an event that has led to no
    /// request yet, because it is paced, or because a query is running; empty when there is none.
    /// What was requested is told by CMStatusCacheFreshness.
    std::optional<std::chrono::steady_clock::time_point> outdatedSince(const Path& path) const;

    /// Since when events wait because no thread can be had to work on them; empty when none do.
    /// They are held, and are worked on as soon as there is a thread.
    std::optional<std::chrono::steady_clock::time_point> waitsForThreadSince() const;

    /// For people who look for a fault: the watches by kind, what is pending and under way,
    /// and the last events. Several lines; the text may change.
    std::string describe() const;

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace quendo
