#pragma once

#include "host/Interrupts.h"
#include "host/Progress.h"
#include "quendo/adapter/CMApplicationInteractor.h"

#include <memory>
#include <string_view>

namespace quendo::host {

/// The frame of one command's work: it can be interrupted, and shows its progress.
class Session {
public:
    Session();

    const std::shared_ptr<CMApplicationInteractor>& interactor() const { return m_interactor; }

    /// The work is done: takes the progress line away and writes what the command has to say.
    /// @throws Interrupted when the user stopped it; HostError when the output is not taken.
    void finish(std::string_view output);

private:
    std::shared_ptr<CMApplicationInteractor> m_interactor;
    Interrupts m_interrupts;
    Progress m_progress;
};

} // namespace quendo::host
