#pragma once

#include "quendo/pool/ManagedFolderDecorator.h"

#include <memory>
#include <string>

namespace quendo {

/// Counts a client in on the wrapped folder, and out when it is destroyed.
class QUENDO_API ClientRegisteredManagedFolder : public ManagedFolderDecorator {
public:
    /// @throws exception::InvalidArgumentError for an identifier that is empty or holds control
    ///         characters, which would make the listing of clients ambiguous
    ClientRegisteredManagedFolder(std::shared_ptr<ManagedFolder> folder, std::string clientId);
    ~ClientRegisteredManagedFolder() override;

private:
    const std::string m_clientId;
};

/// @throws exception::InvalidArgumentError as the constructor above
QUENDO_API void checkClientId(const std::string& clientId);

/// `folder`, with the client counted in as long as the result lives.
/// @throws as the constructor above
QUENDO_API std::shared_ptr<ManagedFolder> registerClient(std::shared_ptr<ManagedFolder> folder,
                                                         std::string clientId);

} // namespace quendo
