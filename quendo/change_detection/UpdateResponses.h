#pragma once

#include "quendo/cache/CMStatusCache.h"
#include "quendo/platform/Path.h"

#include <functional>
#include <memory>
#include <vector>

namespace quendo {

/// What a cache does about a change, as callables to be connected to whatever tells of one. Each
/// does nothing once its cache has gone. Threads: as the cache; those that wait must not be called
/// where the cache refuses to wait.

/// Refreshes everything and waits. @throws as CMStatusCache::refreshAll()
std::function<void()> fullUpdateResponse(std::weak_ptr<CMStatusCache> cache);

/// Asks for a refresh of `folder` and does not wait.
std::function<void()> nonBlockingFullUpdateResponse(std::weak_ptr<CMStatusCache> cache,
                                                    const Path& folder);

/// Refreshes exactly these files and waits. @throws as CacheTask::wait()
std::function<void(std::vector<Path>)> filesUpdateResponse(std::weak_ptr<CMStatusCache> cache);

/// Asks for a refresh of each of these folders, in their order, and does not wait.
std::function<void(std::vector<Path>)> foldersUpdateResponse(std::weak_ptr<CMStatusCache> cache);

} // namespace quendo
