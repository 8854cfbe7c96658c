#include "quendo/platform/EventMgr.h"

#include <array>
#include <stdexcept>

namespace quendo::platform {

EventSubscription::~EventSubscription() = default;
EventMgr::~EventMgr() = default;

std::string EventType::baseType(std::size_t index) {
    static constexpr std::array names{"eventmgr::StorageEvent", "eventmgr::Event",
                                      "eventmgr::BaseEvent"};
    if (index >= names.size())
        throw std::out_of_range("eventmgr::BaseEvent has no base types.");
    return names[index];
}

std::vector<EventType> createEventTypes(const std::vector<StorageEventKind>& kinds,
                                        const std::string& location) {
    const AbsoluteIRI iri(location);
    std::vector<EventType> types;
    for (const auto kind : kinds)
        types.emplace_back(kind, iri);
    return types;
}

} // namespace quendo::platform
