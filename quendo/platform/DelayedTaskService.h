#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UniqueFunction.h"

#include <chrono>

namespace quendo::platform {

/// Runs tasks later. Threads: any.
class QUENDO_API DelayedTaskService {
public:
    virtual ~DelayedTaskService();

    /// Runs `task` once, after `delay`, on a thread of the service's own; returns at once. Tasks
    /// run one at a time, so they must be quick: hand real work to an executor. There is no way to
    /// take one back; let it hold weakly what may go before.
    /// @throws std::bad_alloc, std::system_error when no thread can be had; the task will not run
    virtual void runAfter(std::chrono::milliseconds delay, UniqueFunction<void()> task) = 0;
};

} // namespace quendo::platform
