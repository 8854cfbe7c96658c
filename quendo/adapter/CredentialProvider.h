#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UString.h"

#include <optional>

namespace quendo {

/// What a back end needs to log in somewhere.
struct CredentialRequest {
    UString url;          ///< without user and password
    UString userName;     ///< empty when the back end does not know one
    unsigned attempt = 0; ///< 0 at first; the answer to the attempt before was refused
};

struct Credentials {
    UString userName;
    UString password;
};

/// Supplies credentials; implemented by the host and held weakly by adapters. Called on the thread
/// that runs the adapter's operation, which waits for the answer.
class QUENDO_API CredentialProvider {
public:
    virtual ~CredentialProvider();

    /// The credentials, or nothing to give up: the operation then fails and says so.
    virtual std::optional<Credentials> getCredentials(const CredentialRequest& request) = 0;
};

} // namespace quendo
