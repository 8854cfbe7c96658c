#pragma once

#include "quendo/adapter/FileProperty.h"
#include "quendo/adapter/LocalStatus.h"
#include "quendo/platform/Export.h"

#include <memory>
#include <vector>

namespace quendo {

/// The state of one file or folder as an adapter reports it. A value of 24 bytes; copies share the
/// property list. Threads: immutable but for assignment.
class QUENDO_API FileState {
public:
    explicit FileState(LocalStatus state, bool isFolder = false) noexcept
        : m_state(state), m_isFolder(isFolder) {}
    FileState(LocalStatus state, bool isFolder, std::vector<FileProperty> properties);

    LocalStatus getState() const noexcept { return m_state; }
    bool isFolder() const noexcept { return m_isFolder; }

    /// In the adapter's order; empty for most files.
    const std::vector<FileProperty>& getProperties() const noexcept;

    /// The value of the first property of that name, or null.
    const UString* findProperty(std::u16string_view name) const noexcept;

    friend bool operator==(const FileState& a, const FileState& b) noexcept {
        return a.m_state == b.m_state && a.m_isFolder == b.m_isFolder &&
               (a.m_properties == b.m_properties || a.getProperties() == b.getProperties());
    }

private:
    std::shared_ptr<const std::vector<FileProperty>> m_properties; ///< null when there are none
    LocalStatus m_state;
    bool m_isFolder;
};

} // namespace quendo
