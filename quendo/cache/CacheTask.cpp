#include "quendo/cache/CacheTask.h"

namespace quendo {

CacheTask::~CacheTask() = default;

} // namespace quendo
