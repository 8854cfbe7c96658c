#include "quendo/pool/ClientRegisteredManagedFolder.h"

#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <utility>

namespace quendo {

void checkClientId(const std::string& clientId) {
    if (clientId.empty())
        throw exception::InvalidArgumentError(
            "a client identifier must not be empty: leave it out to be counted as \"UNKNOWN\"");
    if (std::ranges::any_of(clientId, [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }))
        throw exception::InvalidArgumentError(
            "a client identifier must not hold control characters, such as line breaks");
}

ClientRegisteredManagedFolder::ClientRegisteredManagedFolder(std::shared_ptr<ManagedFolder> folder,
                                                             std::string clientId)
    : ManagedFolderDecorator(std::move(folder)), m_clientId(std::move(clientId)) {
    checkClientId(m_clientId);
    wrapped().addClient(m_clientId);
}

ClientRegisteredManagedFolder::~ClientRegisteredManagedFolder() {
    try {
        wrapped().removeClient(m_clientId);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

std::shared_ptr<ManagedFolder> registerClient(std::shared_ptr<ManagedFolder> folder,
                                              std::string clientId) {
    return std::make_shared<ClientRegisteredManagedFolder>(std::move(folder), std::move(clientId));
}

} // namespace quendo
