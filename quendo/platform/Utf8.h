#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Pieces of UTF-8 and UTF-16 that text and file names have in common. Internal.
namespace quendo::utf {

constexpr char32_t replacementCharacter = 0xFFFD;

constexpr bool isHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
constexpr bool isLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

struct Decoded {
    char32_t character = 0;
    std::size_t length = 0; ///< bytes or units taken; 0 when the text is not valid there
};

/// The character at `position`: no overlong forms, no encoded surrogates, none beyond U+10FFFF.
inline Decoded decodeUtf8(std::string_view bytes, std::size_t position) noexcept {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[position + i]); };
    const std::size_t left = bytes.size() - position;
    const unsigned lead = at(0);
    if (lead < 0x80)
        return {lead, 1};
    const std::size_t length = lead < 0xC2   ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || left < length)
        return {};
    // The second byte's range excludes what is overlong, a surrogate or too large.
    const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (at(1) < lowest || at(1) > highest)
        return {};
    char32_t character = lead & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xC0U) != 0x80)
            return {};
        character = (character << 6) | (at(i) & 0x3FU);
    }
    return {character, length};
}

/// The character at `position`; length 0 for a lone surrogate.
inline Decoded decodeUtf16(std::u16string_view text, std::size_t position) noexcept {
    const char32_t unit = text[position];
    if (!isHighSurrogate(unit) && !isLowSurrogate(unit))
        return {unit, 1};
    if (isHighSurrogate(unit) && position + 1 < text.size() && isLowSurrogate(text[position + 1]))
        return {0x10000 + ((unit - 0xD800) << 10) + (text[position + 1] - 0xDC00U), 2};
    return {};
}

inline void appendUtf8(std::string& out, char32_t character) {
    const auto put = [&](char32_t byte) { out.push_back(static_cast<char>(byte)); };
    if (character < 0x80) {
        put(character);
    } else if (character < 0x800) {
        put(0xC0 | (character >> 6));
        put(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        put(0xE0 | (character >> 12));
        put(0x80 | ((character >> 6) & 0x3F));
        put(0x80 | (character & 0x3F));
    } else {
        put(0xF0 | (character >> 18));
        put(0x80 | ((character >> 12) & 0x3F));
        put(0x80 | ((character >> 6) & 0x3F));
        put(0x80 | (character & 0x3F));
    }
}

/// Hands the UTF-16 units of `character` to `put`.
template <class Put>
void encodeUtf16(char32_t character, Put&& put) {
    if (character < 0x10000) {
        put(static_cast<char16_t>(character));
    } else {
        put(static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10)));
        put(static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF)));
    }
}

} // namespace quendo::utf
