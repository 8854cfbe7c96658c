#include "quendo/adapter/CMApplicationInteractor.h"

#include "quendo/adapter/DispatchingProgressIndicator.h"
#include "quendo/adapter/TriggerableStatusDispatcher.h"
#include "quendo/adapter/TriggerableTerminator.h"

namespace quendo {

struct CMApplicationInteractor::Impl {
    explicit Impl(ListenerFailure onFailure)
        : terminator(onFailure), progress(onFailure), status(onFailure) {}

    TriggerableTerminator terminator;
    DispatchingProgressIndicator progress;
    TriggerableStatusDispatcher status;
};

CMApplicationInteractor::CMApplicationInteractor(ListenerFailure onFailure)
    : m_impl(std::make_unique<Impl>(onFailure)) {}
CMApplicationInteractor::~CMApplicationInteractor() = default;

Terminator& CMApplicationInteractor::getTerminator() {
    return m_impl->terminator;
}
ProgressIndicator& CMApplicationInteractor::getProgressIndicator() {
    return m_impl->progress;
}
StatusTrigger& CMApplicationInteractor::getStatusTrigger() {
    return m_impl->status;
}

TerminationTrigger& CMApplicationInteractor::getTerminationTrigger() {
    return m_impl->terminator;
}
ProgressDispatcher& CMApplicationInteractor::getProgressDispatcher() {
    return m_impl->progress;
}
StatusDispatcher& CMApplicationInteractor::getStatusDispatcher() {
    return m_impl->status;
}

} // namespace quendo
