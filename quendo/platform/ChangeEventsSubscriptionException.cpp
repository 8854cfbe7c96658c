#include "quendo/platform/ChangeEventsSubscriptionException.h"

namespace quendo::platform {

ChangeEventsSubscriptionException::~ChangeEventsSubscriptionException() = default;

} // namespace quendo::platform
