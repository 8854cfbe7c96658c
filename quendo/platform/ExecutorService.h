#pragma once

#include "quendo/platform/Export.h"

#include <memory>
#include <string>

namespace quendo {
class Executor;
}

namespace quendo::platform {

/// Where executors come from. Executors outlive everything on purpose: they are never destroyed at
/// the end of the process, so a late task meets no destroyed lock.
class QUENDO_API ExecutorService {
public:
    virtual ~ExecutorService();

    /// One executor for the whole process, which runs one task at a time. Never null. An
    /// implementation that overrides Executor::postFor() keeps the slow operation of one working
    /// copy from holding up queries of the others.
    virtual std::shared_ptr<Executor> getSourceControlExecutor() = 0;

    /// A new serial executor with this name (UTF-8). Never null. Its tasks block, so it must not
    /// share a pool of fixed size with others.
    virtual std::shared_ptr<Executor> createStrandExecutor(const std::string& name) = 0;
};

} // namespace quendo::platform
