#pragma once

#include <string>
#include <string_view>

namespace quendo::git {

/// Whether `text` is the full name of an object, in either of git's hashes.
inline bool isObjectName(std::string_view text) {
    return (text.size() == 40 || text.size() == 64) &&
           text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/// `text` without the line ends at its end.
inline std::string withoutLineEnds(std::string text) {
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text;
}

} // namespace quendo::git
