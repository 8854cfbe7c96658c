#pragma once

#include "quendo/adapter/ApplicationInteractor.h"

#include <boost/signals2/connection.hpp>

#include <atomic>
#include <memory>

namespace quendo::git {

/// Listens to the termination signal for the length of one adapter call. What was triggered
/// before does not count, and nothing of it is left for the next call. A signal that cancels
/// another refresh than the one this call works for does not count either (QueryOrigin).
///
/// Threads: made and destroyed by the call; the signal may come from any thread.
class Cancellation {
public:
    /// @param interactor may be null: then nothing cancels.
    explicit Cancellation(ApplicationInteractor* interactor);

    bool isRequested() const noexcept;

    /// Becomes readable when cancellation is requested; for poll().
    int fileDescriptor() const noexcept;

    /// @throws exception::OperationCancelledError once cancellation was requested.
    void throwIfRequested() const;

private:
    // Shared with the slot: disconnect() does not wait for a slot that is running.
    struct State;
    std::shared_ptr<State> m_state;
    boost::signals2::scoped_connection m_connection;
};

} // namespace quendo::git
