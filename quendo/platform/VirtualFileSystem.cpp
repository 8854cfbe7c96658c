#include "quendo/platform/VirtualFileSystem.h"

#include "quendo/platform/InvalidArgumentError.h"

#include <cctype>
#include <string_view>

namespace quendo::platform {
namespace {

constexpr std::string_view scheme = "file://";
constexpr std::string_view hexDigits = "0123456789ABCDEF";

bool isPlain(unsigned char byte) noexcept {
    return (byte < 0x80 && std::isalnum(byte) != 0) ||
           std::string_view("-._~/").find(static_cast<char>(byte)) != std::string_view::npos;
}

/// The bytes behind the scheme; empty when `text` is not in the form.
std::string decoded(std::string_view text) {
    if (!text.starts_with(scheme) || !text.substr(scheme.size()).starts_with('/'))
        return {};
    text.remove_prefix(scheme.size());
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            if (!isPlain(static_cast<unsigned char>(text[i])))
                return {};
            bytes += text[i];
            continue;
        }
        const auto high = i + 2 < text.size() ? hexDigits.find(text[i + 1]) : text.npos;
        const auto low = i + 2 < text.size() ? hexDigits.find(text[i + 2]) : text.npos;
        if (high == text.npos || low == text.npos || (high == 0 && low == 0))
            return {};
        bytes += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return bytes;
}

} // namespace

VirtualFileSystem::~VirtualFileSystem() = default;

AbsoluteIRI::AbsoluteIRI(std::string text) : m_text(std::move(text)) {
    if (decoded(m_text).empty())
        throw exception::InvalidArgumentError(
            "\"" + m_text + "\" is no absolute file IRI such as file:///a%20file");
}

AbsoluteIRI getLocation(const FileOrFolder& fileOrFolder) {
    const auto& path =
        std::visit([](const auto& each) -> const Path& { return each.path(); }, fileOrFolder);
    if (!path.isAbsolute())
        throw exception::InvalidArgumentError("\"" + path.toUtf8() + "\" is no absolute path");
    std::string text(scheme);
    for (const char character : path.toNative()) {
        const auto byte = static_cast<unsigned char>(character);
        if (isPlain(byte)) {
            text += character;
        } else {
            text += '%';
            text += hexDigits[byte / 16];
            text += hexDigits[byte % 16];
        }
    }
    return AbsoluteIRI(std::move(text));
}

Path fromAbsoluteIRI(const AbsoluteIRI& location) {
    return Path::fromNative(decoded(location.toString()));
}

} // namespace quendo::platform
