#pragma once

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/standard/ThreadStarter.h"

#include <memory>

namespace quendo::platform {

/// One thread for all tasks, there only while one is due some day. Destroying the service waits for
/// nothing; what was handed in still runs.
class QUENDO_API StandardDelayedTaskService : public DelayedTaskService {
public:
    explicit StandardDelayedTaskService(ThreadStarter startThread = startDetachedThread);
    ~StandardDelayedTaskService() override;

    void runAfter(std::chrono::milliseconds delay, UniqueFunction<void()> task) override;

private:
    struct State;
    const std::shared_ptr<State> m_state;
};

} // namespace quendo::platform
