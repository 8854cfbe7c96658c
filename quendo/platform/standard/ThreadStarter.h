#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UniqueFunction.h"

#include <functional>
#include <string>

namespace quendo::platform {

/// Starts a detached thread that runs the callable once. Throws std::system_error when it cannot;
/// the callable was not run then. Internal; tests put failing ones in.
using ThreadStarter = std::function<void(UniqueFunction<void()>)>;

QUENDO_API void startDetachedThread(UniqueFunction<void()> body);

/// Names the calling thread as far as the system allows: 15 bytes, never half a character.
void nameThisThread(const std::string& name) noexcept;

} // namespace quendo::platform
