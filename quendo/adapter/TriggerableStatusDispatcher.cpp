#include "quendo/adapter/TriggerableStatusDispatcher.h"

namespace quendo {

TriggerableStatusDispatcher::~TriggerableStatusDispatcher() = default;

void TriggerableStatusDispatcher::trigger() {
    m_signal();
}

boost::signals2::connection TriggerableStatusDispatcher::connect(const Slot& slot) {
    return m_signal.connect(slot);
}

} // namespace quendo
