#include "quendo/platform/Path.h"

#include "quendo/platform/Utf8.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>
#include <ostream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace quendo {

// The text stands directly behind this head, in the same allocation.
struct Path::Rep {
    std::atomic<std::uint32_t> references{1};
    std::uint32_t size = 0;

    char16_t* text() noexcept { return reinterpret_cast<char16_t*>(this + 1); }
    std::u16string_view view() noexcept { return {text(), size}; }

    static Rep* allocate(std::size_t size) {
        if (size > std::numeric_limits<std::uint32_t>::max())
            throw InvalidPathError("a path of more than 4294967295 characters");
        void* memory = ::operator new(sizeof(Rep) + size * sizeof(char16_t));
        auto* rep = new (memory) Rep;
        rep->size = static_cast<std::uint32_t>(size);
        return rep;
    }

    static void release(Rep* rep) noexcept {
        if (rep != nullptr && rep->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            rep->~Rep();
            ::operator delete(rep);
        }
    }
};

namespace {

constexpr char16_t separator = u'/';

// Without an early exit, so that the compiler turns it into wide operations.
template <class Character>
bool isPlainAscii(std::basic_string_view<Character> text) noexcept {
    bool plain = true;
    for (const Character unit : text)
        plain &= unit > 0 && unit <= 0x7F;
    return plain;
}

template <class Put>
void decodeNative(std::string_view bytes, Put&& put) {
    for (std::size_t i = 0; i < bytes.size();) {
        const auto decoded = utf::decodeUtf8(bytes, i);
        if (decoded.length == 0) {
            put(static_cast<char16_t>(0xDC00 + static_cast<unsigned char>(bytes[i])));
            ++i;
        } else {
            utf::encodeUtf16(decoded.character, put);
            i += decoded.length;
        }
    }
}

std::string shown(std::u16string_view text) {
    std::string result = "\"";
    for (const char character : toUtf8(text)) {
        if (static_cast<unsigned char>(character) < 0x20 || character == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(character)));
            result += escaped;
        } else {
            result += character;
        }
    }
    return result + '"';
}

[[noreturn]] void refuseNul(std::u16string_view text) {
    throw InvalidPathError(shown(text) +
                           " cannot name a file: it holds a NUL character; remove it");
}

[[noreturn]] void refuseSurrogates(std::u16string_view text) {
    throw InvalidPathError(shown(text) +
                           " cannot name a file: it holds surrogates that are no valid UTF-16 "
                           "and would come back from the file system as different text");
}

/// The bytes of `text`, which may hold lone surrogates that stand for bytes.
/// @return false for a surrogate that stands for nothing
bool encodeNative(std::u16string_view text, std::string& bytes) {
    bytes.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto decoded = utf::decodeUtf16(text, i);
        if (decoded.length != 0) {
            utf::appendUtf8(bytes, decoded.character);
            i += decoded.length;
        } else if (text[i] >= 0xDC80 && text[i] <= 0xDCFF) {
            bytes.push_back(static_cast<char>(text[i] - 0xDC00));
            ++i;
        } else {
            return false;
        }
    }
    return true;
}

bool comesBackTheSame(std::u16string_view text) {
    std::string bytes;
    if (!encodeNative(text, bytes))
        return false;
    std::u16string back;
    back.reserve(text.size());
    decodeNative(bytes, [&](char16_t unit) { back.push_back(unit); });
    return back == text;
}

/// The parts of a path without "." and with ".." taken back where that is possible.
std::vector<std::u16string_view> normalParts(std::u16string_view text) {
    const bool absolute = text.starts_with(separator);
    std::vector<std::u16string_view> parts;
    for (std::size_t start = 0; start <= text.size();) {
        const auto end = std::min(text.find(separator, start), text.size());
        const auto part = text.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == u".")
            continue;
        if (part != u"..")
            parts.push_back(part);
        else if (!parts.empty() && parts.back() != u"..")
            parts.pop_back();
        else if (!absolute)
            parts.push_back(part);
    }
    return parts;
}

std::u16string joined(bool absolute, const std::vector<std::u16string_view>& parts) {
    std::u16string text(absolute ? u"/" : u"");
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i != 0)
            text += separator;
        text += parts[i];
    }
    return text;
}

} // namespace

Path Path::detached() const {
    if (m_rep == nullptr)
        return {};
    Rep* rep = Rep::allocate(m_rep->size);
    std::ranges::copy(m_rep->view(), rep->text());
    Path result;
    result.m_rep = rep;
    result.m_hash = m_hash;
    return result;
}

Path::Path(std::u16string_view text) {
    if (!isPlainAscii(text)) {
        if (text.find(u'\0') != std::u16string_view::npos)
            refuseNul(text);
        if (!comesBackTheSame(text))
            refuseSurrogates(text);
    }
    *this = fromValidText(text);
}

Path Path::fromNative(std::string_view bytes) {
    return Path().child(bytes);
}

Path::Path(Rep* rep) noexcept : m_rep(rep), m_hash(std::hash<std::u16string_view>()(rep->view())) {}

Path::Path(const Path& other) noexcept : m_rep(other.m_rep), m_hash(other.m_hash) {
    if (m_rep != nullptr)
        m_rep->references.fetch_add(1, std::memory_order_relaxed);
}

Path& Path::operator=(const Path& other) noexcept {
    Path copy(other);
    std::swap(m_rep, copy.m_rep);
    std::swap(m_hash, copy.m_hash);
    return *this;
}

Path& Path::operator=(Path&& other) noexcept {
    if (this != &other) {
        Rep::release(m_rep);
        m_rep = std::exchange(other.m_rep, nullptr);
        m_hash = std::exchange(other.m_hash, 0);
    }
    return *this;
}

Path::~Path() {
    Rep::release(m_rep);
}

std::u16string_view Path::string() const noexcept {
    return m_rep != nullptr ? m_rep->view() : std::u16string_view();
}

std::string Path::toUtf8() const {
    return quendo::toUtf8(string());
}

std::string Path::toNative() const {
    std::string bytes;
    encodeNative(string(), bytes);
    return bytes;
}

bool Path::isAbsolute() const noexcept {
    return string().starts_with(separator);
}

// Cutting at a separator, or joining with one, keeps text valid: no sequence of bytes that is a
// character reaches across it.
Path Path::parentPath() const {
    const auto text = string();
    const auto last = text.rfind(separator);
    if (last == std::u16string_view::npos || text.size() == 1)
        return {};
    return fromValidText(text.substr(0, std::max<std::size_t>(last, 1)));
}

Path Path::fileName() const {
    const auto text = string();
    const auto last = text.rfind(separator);
    return last == std::u16string_view::npos ? *this : fromValidText(text.substr(last + 1));
}

Path Path::operator/(const Path& relative) const {
    if (relative.empty())
        return *this;
    if (empty() || relative.isAbsolute())
        return relative;
    return fromValidText(string(), string().ends_with(separator) ? u"" : u"/", relative.string());
}

Path Path::operator/(std::u16string_view relative) const {
    return *this / Path(relative);
}

Path Path::child(std::string_view relativeBytes) const {
    if (relativeBytes.empty())
        return *this;
    const auto base = relativeBytes.front() == '/' ? std::u16string_view() : string();
    const bool plain = isPlainAscii(relativeBytes);
    std::size_t units = relativeBytes.size();
    if (!plain) {
        if (relativeBytes.find('\0') != std::string_view::npos)
            refuseNul(toUString(relativeBytes));
        units = 0;
        decodeNative(relativeBytes, [&](char16_t) { ++units; });
    }
    const bool separated = base.empty() || base.ends_with(separator);
    auto* rep = Rep::allocate(base.size() + (separated ? 0 : 1) + units);
    char16_t* out = std::ranges::copy(base, rep->text()).out;
    if (!separated)
        *out++ = separator;
    if (plain)
        std::ranges::copy(relativeBytes, out);
    else
        decodeNative(relativeBytes, [&](char16_t unit) { *out++ = unit; });
    return Path(rep);
}

Path Path::lexicallyNormal() const {
    const auto text = string();
    const auto parts = normalParts(text);
    if (parts.empty() && !text.empty() && !isAbsolute())
        return fromValidText(u".");
    const auto normal = joined(isAbsolute(), parts);
    return normal == text ? *this : fromValidText(normal);
}

Path Path::lexicallyRelative(const Path& base) const {
    if (isAbsolute() != base.isAbsolute())
        return {};
    const auto own = normalParts(string());
    const auto other = normalParts(base.string());
    const auto [ownRest, otherRest] = std::ranges::mismatch(own, other);
    if (otherRest != other.end() && *otherRest == u"..")
        return {};
    std::vector<std::u16string_view> parts(static_cast<std::size_t>(other.end() - otherRest),
                                           u"..");
    parts.insert(parts.end(), ownRest, own.end());
    return fromValidText(parts.empty() ? u"." : joined(false, parts));
}

bool Path::isBelow(const Path& ancestor) const noexcept {
    const auto text = string();
    const auto top = ancestor.string();
    if (top.empty() || !text.starts_with(top))
        return false;
    const auto rest = text.substr(top.size());
    return (top.ends_with(separator) || rest.starts_with(separator)) &&
           rest.find_first_not_of(separator) != std::u16string_view::npos;
}

std::strong_ordering operator<=>(const Path& a, const Path& b) noexcept {
    return a.string() <=> b.string();
}

Path Path::fromValidText(std::u16string_view first, std::u16string_view second,
                         std::u16string_view third) {
    const auto size = first.size() + second.size() + third.size();
    if (size == 0)
        return {};
    auto* rep = Rep::allocate(size);
    char16_t* out = rep->text();
    for (const auto part : {first, second, third})
        out = std::ranges::copy(part, out).out;
    return Path(rep);
}

std::ostream& operator<<(std::ostream& stream, const Path& path) {
    return stream << path.toUtf8();
}

} // namespace quendo
