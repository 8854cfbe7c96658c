#pragma once

#include "quendo/cache/CacheTask.h"

namespace quendo {

/// The task of a request that leaves nothing to do. Threads: any.
class NoOpTask final : public CacheTask {
public:
    void wait() override {}
    void cancel() override {}
};

} // namespace quendo
