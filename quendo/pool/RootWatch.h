#pragma once

#include "quendo/platform/Path.h"
#include "quendo/platform/UniqueFunction.h"

#include <functional>
#include <memory>

namespace quendo {

/// Tells each time the root of a working copy goes, and each time it is there again.
///
/// Threads: any; both callbacks come from a strand of its own, one at a time. Destroying it waits
/// for nothing but a short notice: a callback under way goes on, so the callbacks own what they
/// use.
class RootWatch {
public:
    /// @throws what the platform's watchers throw, ChangeEventsSubscriptionException among it
    RootWatch(const Path& root, std::function<void()> gone, std::function<void()> back);
    ~RootWatch();
    RootWatch(const RootWatch&) = delete;
    RootWatch& operator=(const RootWatch&) = delete;

private:
    struct State;
    const std::shared_ptr<State> m_state;
};

} // namespace quendo
