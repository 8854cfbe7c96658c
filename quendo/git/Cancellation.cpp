#include "quendo/git/Cancellation.h"

#include "quendo/adapter/QueryOrigin.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/git/GitFailure.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace quendo::git {

struct Cancellation::State {
    FileDescriptor event{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::atomic<bool> requested = false;

    void request() noexcept {
        requested.store(true);
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(event.get(), &one, sizeof one);
    }
};

Cancellation::Cancellation(ApplicationInteractor* interactor) : m_state(std::make_shared<State>()) {
    if (!m_state->event)
        throwCannotStart("the operation", std::system_error(errno, std::generic_category()));
    if (interactor == nullptr)
        return;
    const auto origin = QueryOrigin::current();
    m_connection = interactor->getTerminator().connect([state = m_state, origin] {
        if (QueryOrigin::concerns(origin))
            state->request();
    });
    // The refresh that this call works for may have been cancelled while the call waited its turn.
    if (origin != nullptr && origin->isCancelled())
        m_state->request();
}

bool Cancellation::isRequested() const noexcept {
    return m_state->requested.load();
}

int Cancellation::fileDescriptor() const noexcept {
    return m_state->event.get();
}

void Cancellation::throwIfRequested() const {
    if (isRequested())
        throw exception::OperationCancelledError("the operation was cancelled");
}

} // namespace quendo::git
