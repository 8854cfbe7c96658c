#include "quendo/platform/MessageCatalogue.h"

#include "quendo/platform/IMsgIDException.h"

namespace quendo::platform {

std::string MessageID::text() const {
    return catalogue + ":" + key;
}

MessageCatalogue::~MessageCatalogue() = default;
IMsgIDException::~IMsgIDException() = default;

} // namespace quendo::platform
