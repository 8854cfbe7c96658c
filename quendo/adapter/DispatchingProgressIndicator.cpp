#include "quendo/adapter/DispatchingProgressIndicator.h"

namespace quendo {

DispatchingProgressIndicator::~DispatchingProgressIndicator() = default;

void DispatchingProgressIndicator::report(const UString& message, double fraction) {
    m_signal(message, fraction);
}

boost::signals2::connection DispatchingProgressIndicator::connect(const Slot& slot) {
    return m_signal.connect(slot);
}

} // namespace quendo
