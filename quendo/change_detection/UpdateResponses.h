#pragma once

#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/RefreshReason.h"
#include "quendo/platform/Path.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace quendo {

/// What a cache does about a change, as callables to be connected to whatever tells of one. Each
/// does nothing once its cache has gone. Threads: as the cache; those that wait must not be called
/// where the cache refuses to wait.

/// Refreshes everything and waits until that was answered, also when a request that was combined
/// with it is cancelled. @throws as CMStatusCache::refreshAll()
/// @throws exception::OperationCancelledError when the cache was stopped before
std::function<void()> fullUpdateResponse(std::weak_ptr<CMStatusCache> cache);

/// Requests a refresh of `folder` and does not wait.
/// @param reason why; if empty, the reason that counts on the calling thread (RefreshReasonScope)
std::function<void()>
nonBlockingFullUpdateResponse(std::weak_ptr<CMStatusCache> cache, const Path& folder,
                              std::optional<RefreshReason> reason = std::nullopt);

/// Refreshes exactly these files and waits. @throws as fullUpdateResponse()
std::function<void(std::vector<Path>)> filesUpdateResponse(std::weak_ptr<CMStatusCache> cache);

/// Asks for a refresh of each of these folders, in their order, and does not wait.
std::function<void(std::vector<Path>)> foldersUpdateResponse(std::weak_ptr<CMStatusCache> cache);

} // namespace quendo
