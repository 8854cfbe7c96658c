#pragma once

#include "host/Interrupts.h"
#include "host/Progress.h"
#include "quendo/adapter/CMInteractor.h"

#include <memory>
#include <string_view>
#include <vector>

namespace quendo::host {

/// The frame of one command's work: it can be interrupted, and shows its progress.
class Session {
public:
    /// @param interactors of the folders that are worked on
    explicit Session(const std::vector<std::shared_ptr<CMInteractor>>& interactors);
    explicit Session(const std::shared_ptr<CMInteractor>& interactor);

    /// Writes one line on standard error without disturbing the progress line.
    void note(std::string_view message);

    /// Takes the progress line away and writes what there is to say so far; it can be interrupted
    /// as before. @throws HostError when the output is not taken
    void finishFirst(std::string_view output);

    /// The work is done: takes the progress line away and writes what the command has to say.
    /// @throws Interrupted when the user stopped it; HostError when the output is not taken.
    void finish(std::string_view output);

private:
    Interrupts m_interrupts;
    Progress m_progress;
};

} // namespace quendo::host
