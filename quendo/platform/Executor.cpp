#include "quendo/platform/Executor.h"

#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/Services.h"

namespace quendo {

Executor::~Executor() = default;

void Executor::postFor(const TaskSubject&, Task task) {
    post(std::move(task));
}

void Executor::refuseOwnThread() const {
    if (isRunningInThisThread())
        throw ExecutorDeadlockError(
            "A task of the executor \"" + name() +
            "\" would wait for itself: call the task directly, or hand it in without waiting");
}

std::shared_ptr<Executor> getSourceControlExecutor() {
    return platform::services()->executors->getSourceControlExecutor();
}

std::shared_ptr<Executor> createStrandExecutor(const std::string& name) {
    return platform::services()->executors->createStrandExecutor(name);
}

} // namespace quendo
