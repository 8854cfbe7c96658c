#include "quendo/platform/standard/StandardMessageCatalogue.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace quendo::platform {
namespace {

struct Entry {
    std::string_view catalogue;
    std::string_view key;
    std::u16string_view text;
};

constexpr Entry entries[] = {
    {"shared_quendo:core", "VFSChangeEventsError",
     u"Changes in the folder \"{0}\" cannot be followed, because the system refuses to report its "
     u"file events: make sure that the folder can be read and that the system's limit for watched "
     u"folders is not used up, then open the folder again."},
};

UString withoutText(const MessageID& id) {
    UString result = toUString(id.text());
    for (std::size_t i = 0; i < id.arguments.size(); ++i)
        result += (i == 0 ? u": " : u", ") + id.arguments[i];
    return result;
}

/// The index in a placeholder at the start of `text`, and how long it is; length 0 for none.
struct Placeholder {
    std::size_t index = 0;
    std::size_t length = 0;
};
Placeholder placeholderAt(std::u16string_view text) {
    std::size_t index = 0;
    std::size_t end = 1;
    for (; end < text.size() && end < 4 && text[end] >= u'0' && text[end] <= u'9'; ++end)
        index = index * 10 + (text[end] - u'0');
    if (text.front() != u'{' || end == 1 || end == text.size() || text[end] != u'}')
        return {};
    return {index, end + 1};
}

} // namespace

UString StandardMessageCatalogue::format(const MessageID& id) const {
    const auto* entry = std::ranges::find_if(entries, [&](const Entry& candidate) {
        return candidate.catalogue == id.catalogue && candidate.key == id.key;
    });
    if (entry == std::end(entries))
        return withoutText(id);
    UString result;
    for (auto text = entry->text; !text.empty();) {
        const auto placeholder = placeholderAt(text);
        if (placeholder.length != 0 && placeholder.index < id.arguments.size())
            result += id.arguments[placeholder.index];
        else
            result += text.substr(0, std::max<std::size_t>(placeholder.length, 1));
        text.remove_prefix(std::max<std::size_t>(placeholder.length, 1));
    }
    return result;
}

} // namespace quendo::platform
