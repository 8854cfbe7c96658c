#include "quendo/platform/UString.h"

#include "quendo/platform/Utf8.h"

namespace quendo {

std::string toUtf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto decoded = utf::decodeUtf16(text, i);
        utf::appendUtf8(result,
                        decoded.length != 0 ? decoded.character : utf::replacementCharacter);
        i += decoded.length != 0 ? decoded.length : 1;
    }
    return result;
}

UString toUString(std::string_view utf8) {
    UString result;
    result.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size();) {
        const auto decoded = utf::decodeUtf8(utf8, i);
        utf::encodeUtf16(decoded.length != 0 ? decoded.character : utf::replacementCharacter,
                         [&](char16_t unit) { result.push_back(unit); });
        i += decoded.length != 0 ? decoded.length : 1;
    }
    return result;
}

} // namespace quendo
