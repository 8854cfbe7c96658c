#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UString.h"

#include <memory>

namespace quendo {

/// One named property of a file, such as its back end's status columns.
///
/// Names and values are interned: equal texts share one allocation for as long as any of them is
/// in use, in the whole process. Threads: immutable values; making one takes a short lock.
class QUENDO_API FileProperty {
public:
    FileProperty(std::u16string_view name, std::u16string_view value);

    const UString& getName() const noexcept { return *m_name; }
    const UString& getValue() const noexcept { return *m_value; }

    friend bool operator==(const FileProperty& a, const FileProperty& b) noexcept {
        return a.m_name == b.m_name && a.m_value == b.m_value;
    }

private:
    std::shared_ptr<const UString> m_name;
    std::shared_ptr<const UString> m_value;
};

/// Property names that mean the same for every back end.
namespace property {

/// The back end's own two status columns, blank as '.', where they are not plain. A path that the
/// back end reports twice has this property twice, in the back end's order.
inline constexpr std::u16string_view columns = u"columns";
/// The path, relative to the working copy's root, that an added file was renamed from.
inline constexpr std::u16string_view renamedFrom = u"renamedFrom";
/// What kind of conflict: "both modified", "deleted by us", …
inline constexpr std::u16string_view conflict = u"conflict";
/// Why a state is LocalStatus::Unknown.
inline constexpr std::u16string_view why = u"why";
/// The back end refuses to answer for this path, and with it for the whole, where this library
/// answers for the rest; the value is its reason.
inline constexpr std::u16string_view refused = u"refused";
/// The name of a content filter that was not run because only the repository itself names it; the
/// file may be unmodified.
inline constexpr std::u16string_view unverified = u"unverified";
/// What of a nested working copy differs: "commit", "modified", "untracked", joined by commas.
inline constexpr std::u16string_view submodule = u"submodule";

} // namespace property
} // namespace quendo
