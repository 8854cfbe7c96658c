#include "quendo/adapter/FileProperty.h"

#include <mutex>
#include <unordered_map>

namespace quendo {
namespace {

class InternTable {
public:
    std::shared_ptr<const UString> intern(std::u16string_view text) {
        if (auto known = find(text))
            return known;
        // Made without the lock: if this fails, or another thread was faster, the new text's
        // deleter runs, and it takes the lock.
        const std::shared_ptr<const UString> fresh(
            new UString(text), [this](const UString* unused) { forget(unused); });
        std::shared_ptr<const UString> result;
        {
            const std::lock_guard lock(m_mutex);
            if (const auto entry = m_entries.find(text); entry != m_entries.end()) {
                result = entry->second.lock();
                if (result != nullptr)
                    return result;
                // The last user has just gone; the key would go with its text.
                m_entries.erase(entry);
            }
            m_entries.emplace(*fresh, fresh);
        }
        return fresh;
    }

private:
    std::shared_ptr<const UString> find(std::u16string_view text) {
        const std::lock_guard lock(m_mutex);
        const auto entry = m_entries.find(text);
        return entry != m_entries.end() ? entry->second.lock() : nullptr;
    }

    void forget(const UString* text) noexcept {
        {
            const std::lock_guard lock(m_mutex);
            const auto entry = m_entries.find(*text);
            // An equal text may have taken the place of this one.
            if (entry != m_entries.end() && entry->first.data() == text->data())
                m_entries.erase(entry);
        }
        delete text;
    }

    std::mutex m_mutex;
    std::unordered_map<std::u16string_view, std::weak_ptr<const UString>> m_entries;
};

// Never destroyed: properties in statics of hosts go after it.
InternTable& internTable() {
    static auto& table = *new InternTable;
    return table;
}

} // namespace

FileProperty::FileProperty(std::u16string_view name, std::u16string_view value)
    : m_name(internTable().intern(name)), m_value(internTable().intern(value)) {}

} // namespace quendo
