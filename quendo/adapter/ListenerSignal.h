#pragma once

#include "quendo/adapter/ListenerFailure.h"
#include "quendo/platform/EverySlot.h"

#include <boost/signals2/signal.hpp>

#include <memory>

namespace quendo {

/// A signal that a listener may destroy, together with its owner, while it is emitted.
///
/// Boost's signal uses its own members until an emission has ended, so an emission holds the signal
/// shared. Destroying the ListenerSignal disconnects the listeners: those that have not been called
/// yet are not called any more, those that are running go on.
///
/// Threads: any; one thread may destroy it while others emit it, if these have entered the call.
template <class Signature>
class ListenerSignal {
public:
    using Signal = boost::signals2::signal<Signature, platform::EverySlot>;
    using Slot = typename Signal::slot_type;

    explicit ListenerSignal(ListenerFailure onFailure)
        : m_signal(std::make_shared<Signal>(
              platform::EverySlot{.endsAtFailure = onFailure == ListenerFailure::SkipsRest})) {}
    ~ListenerSignal() { m_signal->disconnect_all_slots(); }
    ListenerSignal(const ListenerSignal&) = delete;
    ListenerSignal& operator=(const ListenerSignal&) = delete;

    boost::signals2::connection connect(const Slot& slot) { return m_signal->connect(slot); }

    /// The signal, for an emission that must not need this object any more.
    std::shared_ptr<Signal> hold() const { return m_signal; }

    template <class... Arguments>
    void operator()(const Arguments&... arguments) const {
        (*hold())(arguments...);
    }

private:
    const std::shared_ptr<Signal> m_signal;
};

} // namespace quendo
