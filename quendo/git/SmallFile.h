#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace quendo::git {

/// The content of a regular file, symbolic links followed, or nothing when there is none to read
/// or it is larger than `limit` bytes. Never waits: a FIFO, socket or device gives nothing.
std::optional<std::string> readSmallFile(const std::string& file, std::size_t limit);

} // namespace quendo::git
