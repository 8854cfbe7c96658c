#include "quendo/platform/standard/StandardExecutorService.h"

#include "quendo/platform/standard/SingleThreadExecutor.h"
#include "quendo/platform/standard/StrandPool.h"

namespace quendo::platform {

struct StandardExecutorService::Impl {
    std::shared_ptr<Executor> sourceControl =
        std::make_shared<SingleThreadExecutor>("SourceControl");
    StrandPool strands;
};

StandardExecutorService::StandardExecutorService() : m_impl(std::make_unique<Impl>()) {}
StandardExecutorService::~StandardExecutorService() = default;

std::shared_ptr<StandardExecutorService> StandardExecutorService::instance() {
    static const auto& service =
        *new std::shared_ptr<StandardExecutorService>(new StandardExecutorService);
    return service;
}

std::shared_ptr<Executor> StandardExecutorService::getSourceControlExecutor() {
    return m_impl->sourceControl;
}

std::shared_ptr<Executor> StandardExecutorService::createStrandExecutor(const std::string& name) {
    return m_impl->strands.createStrand(name);
}

} // namespace quendo::platform
