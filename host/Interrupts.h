#pragma once

#include "quendo/adapter/CMInteractor.h"

#include <csignal>
#include <memory>
#include <thread>
#include <vector>

namespace quendo::host {

/// While it lives, Ctrl-C (and a request to terminate or a hang-up) stops the source-control work
/// of its interactors instead of the process; a second one ends the process at once. One at a time,
/// destroyed on the thread that made it: that one blocks these signals meanwhile.
class Interrupts {
public:
    explicit Interrupts(std::vector<std::shared_ptr<CMInteractor>> interactors);
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    /// From now on already the first one ends the process at once: the work is done.
    /// @throws Interrupted when one came before.
    void endAtOnce();

    /// The signal that came, or 0. Stays after the object has gone.
    static int received() noexcept;

private:
    void watch() noexcept;

    const std::vector<std::shared_ptr<CMInteractor>> m_interactors;
    std::thread m_thread;
    sigset_t m_maskBefore; ///< of the thread that made it
};

} // namespace quendo::host
