#pragma once

#include "quendo/exception/MessageIDException.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/UString.h"

#include <type_traits>

namespace shared_quendo::core {

/// The platform refuses to deliver file-change events for a folder that a client asked for. Thrown
/// nested around the platform's own error, which says why (`std::rethrow_if_nested`).
class QUENDO_API VFSChangeEventsError
    : public quendo::exception::MessageIDException<VFSChangeEventsError> {
public:
    /// @param folder the requested folder's path text, the message's one argument: anything that a
    ///               UString can be made from.
    template <class Text>
    requires std::is_constructible_v<quendo::UString, const Text&>
    explicit VFSChangeEventsError(const Text& folder)
        : VFSChangeEventsError(quendo::UString(folder), Formatted{}) {}

    VFSChangeEventsError(const VFSChangeEventsError&) = default;
    ~VFSChangeEventsError() override;

private:
    struct Formatted {};
    VFSChangeEventsError(quendo::UString folder, Formatted);
};

} // namespace shared_quendo::core
