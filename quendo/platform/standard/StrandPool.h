#pragma once

#include "quendo/platform/Executor.h"
#include "quendo/platform/standard/ThreadStarter.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace quendo::platform {

struct StrandPoolOptions {
    /// A worker that had nothing to do for this long ends.
    std::chrono::milliseconds idleTime{10'000};
    ThreadStarter startThread = startDetachedThread;
};

/// Makes serial executors whose tasks may block, on threads that come and go.
///
/// A strand with something to do and no idle worker gets a new one, so strands that wait for others
/// starve none; a strand with nothing to do holds no thread. When the system gives no further
/// thread, a strand waits for a worker to come free; without any worker, post() throws.
///
/// Neither the pool nor a strand waits for anything when it goes: queued tasks still run.
class QUENDO_API StrandPool {
public:
    explicit StrandPool(StrandPoolOptions options = {});
    ~StrandPool();
    StrandPool(const StrandPool&) = delete;
    StrandPool& operator=(const StrandPool&) = delete;

    std::shared_ptr<Executor> createStrand(const std::string& name);

    /// Threads of this pool, idle ones included.
    std::size_t workerCount() const;

    /// Waits until there are at most `count` workers.
    /// @return false when there still were more at the deadline
    bool waitForAtMost(std::size_t count, std::chrono::steady_clock::time_point deadline) const;

private:
    struct State;
    class Strand;
    std::shared_ptr<State> m_state;
};

} // namespace quendo::platform
