#pragma once

#include "quendo/platform/ExecutorService.h"

#include <memory>
#include <string>

namespace quendo::platform {

/// The library's own executors: a thread for source control, and an elastic pool of strands.
/// One a process, never destroyed.
class QUENDO_API StandardExecutorService : public ExecutorService {
public:
    static std::shared_ptr<StandardExecutorService> instance();
    ~StandardExecutorService() override;

    std::shared_ptr<Executor> getSourceControlExecutor() override;
    std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override;

private:
    StandardExecutorService();

    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace quendo::platform
