#pragma once

#include "quendo/platform/Export.h"

#include <cstdint>
#include <string_view>

namespace quendo {

/// A file's local source-control status. The numbers are part of the contract.
enum class LocalStatus : std::uint32_t {
    NotUnderSourceControl = 0,
    Unmodified = 1,
    Ignored = 2,
    Modified = 3,
    Missing = 4, ///< gone from disk, no removal scheduled
    Added = 5,
    Deleted = 6, ///< scheduled for deletion
    Conflicted = 7,
    External = 8, ///< another working copy inside this one
    Unknown = 9,  ///< obstructed or unreadable; a property says why
};

/// The enumerator's name, in English and for machines as well ("NotUnderSourceControl").
QUENDO_API std::string_view toString(LocalStatus status) noexcept;

} // namespace quendo
