#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UString.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <string>

namespace quendo {

/// Tells source-control work that it is to stop. A trigger runs every listener on the triggering
/// thread; it carries no state, so who connects later hears nothing of it. Who it is meant for, a
/// listener asks QueryOrigin.
class QUENDO_API Terminator {
public:
    using Slot = boost::signals2::slot<void()>;

    virtual ~Terminator();

    /// Any thread. Keep the connection scoped to the work that is to be stopped.
    virtual boost::signals2::connection connect(const Slot& slot) = 0;

    /// Keeps `connection` under `key`; one already kept there is disconnected. The keyed
    /// connections are not locked: one thread at a time.
    virtual void keepConnection(const std::string& key, boost::signals2::connection connection) = 0;

    /// Disconnects and forgets what is kept under `key`, if anything. One thread at a time.
    virtual void removeConnection(const std::string& key) = 0;

    virtual void trigger() = 0;
};

/// Where source-control work reports how far it is.
class QUENDO_API ProgressIndicator {
public:
    using Slot = boost::signals2::slot<void(const UString&, double)>;

    virtual ~ProgressIndicator();

    /// The value of `fraction` when it is not known how far the work is.
    static constexpr double unknown = -1;

    /// May be called again with the same values: the work goes on.
    /// @param fraction how much of the work is done, 0 to 1, or `unknown`; passed on as it is.
    ///        Listeners run on this thread.
    virtual void report(const UString& message, double fraction) = 0;

    virtual boost::signals2::connection connect(const Slot& slot) = 0;
};

/// Asks the host's side for fresh statuses.
class QUENDO_API StatusTrigger {
public:
    using Slot = boost::signals2::slot<void()>;

    virtual ~StatusTrigger();
    virtual void trigger() = 0;
    virtual boost::signals2::connection connect(const Slot& slot) = 0;
};

/// What source-control work sees of its host. References stay valid as long as the interactor.
class QUENDO_API ApplicationInteractor {
public:
    virtual ~ApplicationInteractor();
    virtual Terminator& getTerminator() = 0;
    virtual ProgressIndicator& getProgressIndicator() = 0;
    virtual StatusTrigger& getStatusTrigger() = 0;
};

} // namespace quendo
