#include "host/VisibleText.h"

#include "quendo/platform/UString.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace quendo::host {
namespace {

bool isDeceptive(char32_t c) {
    return c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0x061c || c == 0x200b || c == 0x200e ||
           c == 0x200f || (c >= 0x2028 && c <= 0x202e) || (c >= 0x2060 && c <= 0x2069) ||
           c == 0xfeff || (c >= 0xe0000 && c <= 0xe007f);
}

std::string escapeOf(char32_t c) {
    switch (c) {
    case U'\n':
        return "\\n";
    case U'\r':
        return "\\r";
    case U'\t':
        return "\\t";
    }
    char buffer[16];
    const char* format = c < 0x80 ? "\\x%02x" : c < 0x10000 ? "\\u%04x" : "\\U%08x";
    std::snprintf(buffer, sizeof buffer, format, static_cast<unsigned>(c));
    return buffer;
}

struct Escaped {
    std::string text;
    bool changed = false;
};

Escaped escape(std::string_view bytes, bool quoting) {
    // Path's text marks each byte that is no UTF-8 by a lone surrogate; a NUL, which it refuses,
    // cannot be part of a message or a name.
    const Path holder = Path::fromNative(bytes.substr(0, bytes.find('\0')));
    const std::u16string_view text = holder.string();
    Escaped result;
    std::size_t cleanFrom = 0;
    const auto replace = [&](std::size_t at, std::size_t length, const std::string& by) {
        result.text += toUtf8(text.substr(cleanFrom, at - cleanFrom)) + by;
        cleanFrom = at + length;
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t unit = text[i];
        if (unit >= 0xdc80 && unit <= 0xdcff) {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\x%02x", unit - 0xdc00u);
            replace(i, 1, buffer);
            result.changed = true;
        } else if (unit >= 0xd800 && unit <= 0xdbff && i + 1 < text.size()) {
            const char32_t c = 0x10000 + ((unit - 0xd800u) << 10) + (text[i + 1] - 0xdc00u);
            if (isDeceptive(c)) {
                replace(i, 2, escapeOf(c));
                result.changed = true;
            }
            ++i;
        } else if (isDeceptive(unit)) {
            replace(i, 1, escapeOf(unit));
            result.changed = true;
        } else if (quoting && (unit == u'\\' || unit == u'\'')) {
            replace(i, 1, unit == u'\\' ? "\\\\" : "\\'");
        }
    }
    result.text += toUtf8(text.substr(cleanFrom));
    return result;
}

bool isPlain(std::string_view bytes) {
    return std::ranges::all_of(bytes, [](char c) { return c >= 0x20 && c < 0x7f; });
}

} // namespace

std::string visibleText(std::string_view bytes) {
    return isPlain(bytes) ? std::string(bytes) : escape(bytes, false).text;
}

std::string visiblePath(std::string_view bytes) {
    const bool blankEnds = bytes.starts_with(' ') || bytes.ends_with(' ');
    if (isPlain(bytes) && !blankEnds)
        return std::string(bytes);
    auto escaped = escape(bytes, true);
    return escaped.changed || blankEnds ? "$'" + std::move(escaped.text) + "'" : std::string(bytes);
}

std::string visiblePath(const Path& path) {
    return visiblePath(path.toNative());
}

} // namespace quendo::host
