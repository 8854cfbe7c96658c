#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/MessageCatalogue.h"

#include <string>

namespace quendo::platform {

/// An exception that is identified by a message of a catalogue and formatted from it. No
/// std::exception itself: the class that is thrown has that base already, and two of them would
/// make `catch (const std::exception&)` miss it.
class QUENDO_API IMsgIDException {
public:
    virtual ~IMsgIDException();
    virtual const char* what() const noexcept = 0;

    /// The full message identifier ("shared_quendo:core:VFSChangeEventsError").
    virtual std::string GetID() const = 0;

    virtual const MessageID& GetBaseMsgIDObj() const noexcept = 0;
};

} // namespace quendo::platform
