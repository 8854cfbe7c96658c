#pragma once

#include "quendo/platform/Logging.h"

#include <optional>

namespace quendo::host {

/// Writes the library's log records from `lowest` on to standard error, one line each; without a
/// severity nothing is logged at all.
void setUpLog(std::optional<platform::Severity> lowest);

} // namespace quendo::host
