#pragma once

#include "quendo/platform/Path.h"

#include <string>
#include <string_view>

/// Text that may hold anything, made safe to show on a terminal: control characters, characters
/// that turn the direction of writing or show nothing at all, and bytes that are no UTF-8 become
/// backslash escapes ("\n", "\x1b", "\u202e", "\xff").
namespace quendo::host {

/// One line; what is clean comes back as it is.
std::string visibleText(std::string_view bytes);

/// A file name as a shell takes it: itself, or $'…' when anything had to be escaped.
std::string visiblePath(std::string_view bytes);
std::string visiblePath(const Path& path);

} // namespace quendo::host
