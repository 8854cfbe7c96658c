#pragma once

#include "quendo/platform/Export.h"

#include <string>
#include <string_view>

namespace quendo {

/// UTF-16 text: messages, check-in comments, system names, metadata file names.
using UString = std::u16string;

/// Converts UTF-16 to UTF-8. What is no valid UTF-16 becomes U+FFFD, so the result is always valid
/// UTF-8 and may be shown, logged or put into JSON; it is not meant to be turned back into a path.
QUENDO_API std::string toUtf8(std::u16string_view text);

/// Converts UTF-8 to UTF-16. A byte that is not valid UTF-8 becomes U+FFFD. For text, not for file
/// names: those go through Path::fromNative, which loses nothing.
QUENDO_API UString toUString(std::string_view utf8);

} // namespace quendo
