#pragma once

#include <string_view>
#include <typeinfo>

namespace quendo {

/// Whether both name one type, for CMAdapter::getSubsystem. By name: what loads the library and the
/// library need not share one type_info.
inline bool isSameType(const std::type_info& a, const std::type_info& b) {
    const auto name = [](const std::type_info& type) {
        std::string_view text = type.name();
        if (text.starts_with('*'))
            text.remove_prefix(1);
        return text;
    };
    return name(a) == name(b);
}

} // namespace quendo
