#pragma once

#include "quendo/platform/Logging.h"

#include <boost/signals2/expired_slot.hpp>

#include <exception>
#include <utility>

namespace quendo::platform {

/// A combiner for signals whose listeners' exceptions reach the emitter: it calls every slot, then
/// throws what was thrown first, and logs the others. For slots that return nothing.
struct EverySlot {
    using result_type = void;

    bool endsAtFailure = false; ///< the slots behind one that throws are not called

    template <class Slots>
    void operator()(Slots first, Slots last) const {
        std::exception_ptr failure;
        for (; first != last; ++first) {
            try {
                *first;
            } catch (const boost::signals2::expired_slot&) {
                // It expired while the others were called.
            } catch (...) {
                if (endsAtFailure)
                    throw;
                if (failure == nullptr)
                    failure = std::current_exception();
                else
                    QUENDO_LOG_CAUGHT_EXCEPTION();
            }
        }
        if (failure != nullptr)
            std::rethrow_exception(std::move(failure));
    }
};

} // namespace quendo::platform
