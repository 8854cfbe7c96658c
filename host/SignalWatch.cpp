#include "host/SignalWatch.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <poll.h>
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

void mask(int how, int signal) {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, signal);
    ::pthread_sigmask(how, &set, nullptr);
}

} // namespace

SignalWatch::SignalWatch(int signal) : m_signal(signal) {
    if (events < 0)
        events = ::eventfd(0, EFD_CLOEXEC);
    if (events < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    mask(SIG_BLOCK, m_signal);
    struct sigaction action {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(m_signal, &action, nullptr);
}

SignalWatch::~SignalWatch() {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    ::sigaction(m_signal, &action, nullptr);
    mask(SIG_UNBLOCK, m_signal);
}

SignalCaller::SignalCaller(const SignalWatch& watch, std::function<void()> onSignal) {
    m_thread = std::thread([signal = watch.m_signal, onSignal = std::move(onSignal)] {
        mask(SIG_UNBLOCK, signal);
        // The thread sanitizer delivers a signal in poll() at once, and in read() only behind it.
        pollfd noted{events, POLLIN, 0};
        for (eventfd_t seen = 0; seen < stop;) {
            if (::poll(&noted, 1, -1) == 1 && ::eventfd_read(events, &seen) == 0 &&
                seen % stop != 0)
                onSignal();
        }
    });
}

SignalCaller::~SignalCaller() {
    ::eventfd_write(events, stop);
    m_thread.join();
}

} // namespace quendo::host
