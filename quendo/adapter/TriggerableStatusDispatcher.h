#pragma once

#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/adapter/ListenerSignal.h"
#include "quendo/platform/Export.h"

namespace quendo {

/// Both faces of the request for fresh statuses, joined by one signal.
class QUENDO_API TriggerableStatusDispatcher : public StatusTrigger, public StatusDispatcher {
public:
    using Slot = StatusTrigger::Slot;

    explicit TriggerableStatusDispatcher(ListenerFailure onFailure) : m_signal(onFailure) {}
    ~TriggerableStatusDispatcher() override;

    void trigger() override;
    boost::signals2::connection connect(const Slot& slot) override;

private:
    ListenerSignal<void()> m_signal;
};

} // namespace quendo
