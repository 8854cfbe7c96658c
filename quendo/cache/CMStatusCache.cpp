#include "quendo/cache/CMStatusCache.h"

#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"

namespace quendo {

CMStatusCache::~CMStatusCache() = default;
CMStatusCacheChanges::~CMStatusCacheChanges() = default;
CMStatusCacheFolders::~CMStatusCacheFolders() = default;
CMStatusCacheFreshness::~CMStatusCacheFreshness() = default;

} // namespace quendo
