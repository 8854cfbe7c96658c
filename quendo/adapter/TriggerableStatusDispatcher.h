#pragma once

#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/platform/Export.h"

#include <boost/signals2/signal.hpp>

namespace quendo {

/// Both faces of the request for fresh statuses, joined by one signal.
class QUENDO_API TriggerableStatusDispatcher : public StatusTrigger, public StatusDispatcher {
public:
    using Slot = StatusTrigger::Slot;

    ~TriggerableStatusDispatcher() override;

    void trigger() override;
    boost::signals2::connection connect(const Slot& slot) override;

private:
    boost::signals2::signal<void()> m_signal;
};

} // namespace quendo
