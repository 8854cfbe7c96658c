#pragma once

#include "quendo/platform/Executor.h"
#include "quendo/platform/standard/ThreadStarter.h"

#include <memory>
#include <string>

namespace quendo::platform {

/// An executor with one thread of its own, which starts with the first task and ends when the
/// executor is gone and its queue empty. A second thread exists while a task waits outside and
/// queries of other working copies are queued; when no thread can be had for it, they wait.
class QUENDO_API SingleThreadExecutor : public Executor {
public:
    explicit SingleThreadExecutor(std::string name,
                                  ThreadStarter startThread = startDetachedThread);
    ~SingleThreadExecutor() override;

    void post(Task task) override;
    void postFor(const TaskSubject& subject, Task task) override;
    bool isRunningInThisThread() const noexcept override;
    std::string name() const override;

private:
    struct State;
    std::shared_ptr<State> m_state;
};

} // namespace quendo::platform
