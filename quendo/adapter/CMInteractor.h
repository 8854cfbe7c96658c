#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UString.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

namespace quendo {

/// Stops the source-control work under way. Any thread.
class QUENDO_API TerminationTrigger {
public:
    virtual ~TerminationTrigger();
    virtual void trigger() = 0;
};

/// Lets the host follow progress. Listeners run on the thread that does the work.
class QUENDO_API ProgressDispatcher {
public:
    using Slot = boost::signals2::slot<void(const UString&, double)>;

    virtual ~ProgressDispatcher();
    virtual boost::signals2::connection connect(const Slot& slot) = 0;
};

/// Lets the host hear that statuses should be fetched anew.
class QUENDO_API StatusDispatcher {
public:
    using Slot = boost::signals2::slot<void()>;

    virtual ~StatusDispatcher();
    virtual boost::signals2::connection connect(const Slot& slot) = 0;
};

/// What the host sees of source-control work. References stay valid as long as the interactor.
class QUENDO_API CMInteractor {
public:
    virtual ~CMInteractor();
    virtual TerminationTrigger& getTerminationTrigger() = 0;
    virtual ProgressDispatcher& getProgressDispatcher() = 0;
    virtual StatusDispatcher& getStatusDispatcher() = 0;
};

} // namespace quendo
