#pragma once

#include <functional>
#include <thread>

namespace quendo::host {

/// Calls a function whenever the process gets one signal, which does not end the process any more.
///
/// Threads: `onSignal` is called on a thread that the object owns and its destructor joins. One
/// object at a time. After it has gone the signal is ignored.
class SignalWatch {
public:
    SignalWatch(int signal, std::function<void()> onSignal);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    const int m_signal;
    std::thread m_thread;
};

} // namespace quendo::host
