#include "quendo/adapter/FileState.h"

#include <algorithm>
#include <utility>

namespace quendo {

FileState::FileState(LocalStatus state, bool isFolder, std::vector<FileProperty> properties)
    : m_state(state), m_isFolder(isFolder) {
    if (!properties.empty())
        m_properties = std::make_shared<const std::vector<FileProperty>>(std::move(properties));
}

const std::vector<FileProperty>& FileState::getProperties() const noexcept {
    // Never destroyed: states live in statics of hosts.
    static const auto& none = *new std::vector<FileProperty>;
    return m_properties != nullptr ? *m_properties : none;
}

const UString* FileState::findProperty(std::u16string_view name) const noexcept {
    const auto& properties = getProperties();
    const auto found = std::ranges::find(properties, name, &FileProperty::getName);
    return found != properties.end() ? &found->getValue() : nullptr;
}

} // namespace quendo
