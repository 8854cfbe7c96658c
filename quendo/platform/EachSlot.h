#pragma once

#include "quendo/platform/Logging.h"

namespace quendo::platform {

/// A combiner for signals whose listeners must not hide notices from each other: what one throws is
/// logged, and the next is called. For slots that return nothing.
struct EachSlot {
    using result_type = void;

    template <class Slots>
    void operator()(Slots first, Slots last) const {
        for (; first != last; ++first) {
            try {
                *first;
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
            }
        }
    }
};

} // namespace quendo::platform
