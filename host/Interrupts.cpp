#include "host/Interrupts.h"

#include "host/HostError.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

// A signal handler may do next to nothing: it notes the signal and wakes a thread, and that thread
// fires the trigger. A trigger reaches only who listens at that moment, and the work may be about
// to start listening; so the thread fires it again until the work has ended.

namespace quendo::host {
namespace {

constexpr int refireMilliseconds = 50;

std::atomic<int> receivedSignal{0};
std::atomic<bool> atOnce{false};
std::atomic<int> wakeEvent{-1};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void wake() noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeEvent.load(), &one, sizeof one);
}

extern "C" void onSignal(int number) {
    const int error = errno;
    int none = 0;
    if (!receivedSignal.compare_exchange_strong(none, number) || atOnce.load())
        ::_exit(128 + number);
    wake();
    errno = error;
}

} // namespace

Interrupts::Interrupts(std::vector<std::shared_ptr<CMInteractor>> interactors)
    : m_interactors(std::move(interactors)) {
    const int event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (event < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    wakeEvent.store(event);
    try {
        m_thread = std::thread(&Interrupts::watch, this);
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "a thread cannot be started (see ulimit -u)");
    }
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    for (const int number : {SIGTERM, SIGHUP}) {
        // nohup and the like stay in force.
        struct sigaction before {};
        if (::sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            ::sigaction(number, &action, nullptr);
    }
    // The thread takes them: the caller's may be where a signal must wait.
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        ::sigaddset(&signals, number);
    ::pthread_sigmask(SIG_BLOCK, &signals, &m_maskBefore);
}

Interrupts::~Interrupts() {
    // The handler stays, so that a late signal still gives the exit code that is promised.
    atOnce.store(true);
    ::pthread_sigmask(SIG_SETMASK, &m_maskBefore, nullptr);
    wake();
    m_thread.join();
    ::close(wakeEvent.exchange(-1));
}

void Interrupts::endAtOnce() {
    atOnce.store(true);
    if (received() != 0)
        throw Interrupted();
}

int Interrupts::received() noexcept {
    return receivedSignal.load();
}

void Interrupts::watch() noexcept {
    while (!atOnce.load()) {
        pollfd file{wakeEvent.load(), POLLIN, 0};
        ::poll(&file, 1, received() != 0 ? refireMilliseconds : -1);
        std::uint64_t count = 0;
        [[maybe_unused]] const auto read = ::read(file.fd, &count, sizeof count);
        if (received() == 0 || atOnce.load())
            continue;
        for (const auto& interactor : m_interactors) {
            try {
                interactor->getTerminationTrigger().trigger();
            } catch (...) {
                // A listener that cannot stop its work is asked again.
            }
        }
    }
}

} // namespace quendo::host
