#pragma once

#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/adapter/ListenerFailure.h"
#include "quendo/platform/Export.h"

#include <memory>

namespace quendo {

/// Joins the host and its source-control work: each getter of one face reaches the same object as
/// its counterpart of the other. One is shared by all that works for one managed folder.
///
/// Threads: every operation may be called from any thread, the keyed connections of the
/// Terminator excepted. Listeners run on the triggering thread; what they throw reaches the caller
/// of the trigger, and ListenerFailure says whether the listeners behind are called. Destroying the
/// interactor disconnects them all; a listener may do that too.
class QUENDO_API CMApplicationInteractor : public ApplicationInteractor, public CMInteractor {
public:
    /// @param onFailure that of a managed folder spares the rest
    explicit CMApplicationInteractor(ListenerFailure onFailure = ListenerFailure::SkipsRest);
    ~CMApplicationInteractor() override;

    Terminator& getTerminator() override;
    ProgressIndicator& getProgressIndicator() override;
    StatusTrigger& getStatusTrigger() override;
    TerminationTrigger& getTerminationTrigger() override;
    ProgressDispatcher& getProgressDispatcher() override;
    StatusDispatcher& getStatusDispatcher() override;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace quendo
