#pragma once

#include "quendo/platform/MessageCatalogue.h"

namespace quendo::platform {

/// The library's messages in English. Any thread.
class QUENDO_API StandardMessageCatalogue : public MessageCatalogue {
public:
    UString format(const MessageID& id) const override;
};

} // namespace quendo::platform
