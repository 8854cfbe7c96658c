#include "quendo/cache/Stoppable.h"

namespace quendo {

Stoppable::~Stoppable() = default;

} // namespace quendo
