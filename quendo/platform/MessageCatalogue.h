#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UString.h"

#include <string>
#include <vector>

namespace quendo::platform {

/// Names one message of a catalogue, with what goes into its placeholders, in order.
struct QUENDO_API MessageID {
    std::string catalogue; ///< such as "shared_quendo:core"
    std::string key;
    std::vector<UString> arguments;

    /// The full identifier: catalogue and key, joined by one colon.
    std::string text() const;

    friend bool operator==(const MessageID&, const MessageID&) = default;
};

/// Turns message identifiers into text for people.
class QUENDO_API MessageCatalogue {
public:
    virtual ~MessageCatalogue();

    /// The text with "{0}", "{1}", … replaced by the arguments. A message that the catalogue does
    /// not have gives its identifier and its arguments, never an error.
    virtual UString format(const MessageID& id) const = 0;
};

} // namespace quendo::platform
