#include "quendo/adapter/LocalStatus.h"

namespace quendo {

std::string_view toString(LocalStatus status) noexcept {
    switch (status) {
    case LocalStatus::NotUnderSourceControl:
        return "NotUnderSourceControl";
    case LocalStatus::Unmodified:
        return "Unmodified";
    case LocalStatus::Ignored:
        return "Ignored";
    case LocalStatus::Modified:
        return "Modified";
    case LocalStatus::Missing:
        return "Missing";
    case LocalStatus::Added:
        return "Added";
    case LocalStatus::Deleted:
        return "Deleted";
    case LocalStatus::Conflicted:
        return "Conflicted";
    case LocalStatus::External:
        return "External";
    case LocalStatus::Unknown:
        break;
    }
    return "Unknown";
}

} // namespace quendo
