#pragma once

#include "quendo/platform/Logging.h"

#include <boost/signals2/expired_slot.hpp>

#include <exception>

namespace quendo {

/// A combiner for signals whose listeners must not hide notices from each other, but whose
/// exceptions count: it calls every slot and then throws what was thrown first. The others are
/// logged. For slots that return nothing.
struct EverySlot {
    using result_type = void;

    template <class Slots>
    void operator()(Slots first, Slots last) const {
        std::exception_ptr failure;
        for (; first != last; ++first) {
            try {
                *first;
            } catch (const boost::signals2::expired_slot&) {
                // It went while the others were called.
            } catch (...) {
                if (failure == nullptr)
                    failure = std::current_exception();
                else
                    QUENDO_LOG_CAUGHT_EXCEPTION();
            }
        }
        if (failure != nullptr)
            std::rethrow_exception(failure);
    }
};

} // namespace quendo
