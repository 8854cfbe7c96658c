#pragma once

#include "quendo/platform/Export.h"

namespace quendo {

/// One request for a refresh. Shared with the job that settles it; dropping it changes nothing.
/// Threads: any, any number of times.
class QUENDO_API CacheTask {
public:
    virtual ~CacheTask();

    /// Blocks until the refresh has finished: its answer is in the cache, or it was skipped because
    /// it, or a request that was combined with it, was cancelled.
    /// @throws what made the refresh fail: the adapter's or a listener's exception, the same object
    /// @throws ExecutorDeadlockError on a thread that the refresh itself needs, as long as it has
    ///         not finished: in a listener of the cache, or of the progress of an operation
    virtual void wait() = 0;

    /// Asks that the refresh be given up: one that has not started is skipped, together with all
    /// that is combined with it by then; a query under way is stopped, and no other operation on
    /// the folder. Does not wait. wait() still tells when it is over.
    virtual void cancel() = 0;
};

} // namespace quendo
