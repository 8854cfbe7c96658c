#include "host/SignalWatch.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace quendo::host {
namespace {

constexpr eventfd_t stop = 1ULL << 32U;

// The handler may write to it at any moment, so it is never closed.
std::atomic<int> events{-1};

void noteSignal(int) {
    const int error = errno;
    ::eventfd_write(events, 1);
    errno = error;
}

} // namespace

SignalWatch::SignalWatch(int signal, std::function<void()> onSignal) : m_signal(signal) {
    if (events < 0)
        events = ::eventfd(0, EFD_CLOEXEC);
    if (events < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    m_thread = std::thread([onSignal = std::move(onSignal)] {
        for (eventfd_t seen = 0; seen < stop;) {
            if (::eventfd_read(events, &seen) == 0 && seen % stop != 0)
                onSignal();
        }
    });
    struct sigaction action {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(m_signal, &action, nullptr);
}

SignalWatch::~SignalWatch() {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    ::sigaction(m_signal, &action, nullptr);
    ::eventfd_write(events, stop);
    m_thread.join();
}

} // namespace quendo::host
