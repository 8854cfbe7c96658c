#pragma once

#include "quendo/platform/Export.h"

namespace quendo {

/// Background work that can be ended.
class QUENDO_API Stoppable {
public:
    virtual ~Stoppable();

    /// Ends the work for good. Any thread; does not wait; later calls do nothing.
    virtual void stop() = 0;
};

} // namespace quendo
