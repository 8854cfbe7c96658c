#include "quendo/adapter/TriggerableTerminator.h"

namespace quendo {

TriggerableTerminator::~TriggerableTerminator() = default;

boost::signals2::connection TriggerableTerminator::connect(const Slot& slot) {
    return m_signal.connect(slot);
}

void TriggerableTerminator::keepConnection(const std::string& key,
                                           boost::signals2::connection connection) {
    // Scoped first, so that a failure to make the entry does not leave it connected for good.
    boost::signals2::scoped_connection scoped(connection);
    m_connections[key] = std::move(scoped);
}

void TriggerableTerminator::removeConnection(const std::string& key) {
    m_connections.erase(key);
}

void TriggerableTerminator::trigger() {
    m_signal();
}

} // namespace quendo
