#pragma once

#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/adapter/ListenerSignal.h"
#include "quendo/platform/Export.h"

namespace quendo {

/// Both faces of progress, joined by one signal.
class QUENDO_API DispatchingProgressIndicator : public ProgressIndicator,
                                                public ProgressDispatcher {
public:
    using Slot = ProgressIndicator::Slot;

    explicit DispatchingProgressIndicator(ListenerFailure onFailure) : m_signal(onFailure) {}
    ~DispatchingProgressIndicator() override;

    void report(const UString& message, double fraction) override;
    boost::signals2::connection connect(const Slot& slot) override;

private:
    ListenerSignal<void(const UString&, double)> m_signal;
};

} // namespace quendo
