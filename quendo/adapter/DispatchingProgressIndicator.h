#pragma once

#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/platform/Export.h"

#include <boost/signals2/signal.hpp>

namespace quendo {

/// Both faces of progress, joined by one signal.
class QUENDO_API DispatchingProgressIndicator : public ProgressIndicator,
                                                public ProgressDispatcher {
public:
    using Slot = ProgressIndicator::Slot;

    ~DispatchingProgressIndicator() override;

    void report(const UString& message, double fraction) override;
    boost::signals2::connection connect(const Slot& slot) override;

private:
    boost::signals2::signal<void(const UString&, double)> m_signal;
};

} // namespace quendo
