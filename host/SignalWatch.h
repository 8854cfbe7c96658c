#pragma once

#include <functional>
#include <thread>

namespace quendo::host {

/// Notes one signal of the process, which does not end the process any more.
///
/// The thread that makes the object blocks the signal, and so do the threads that it starts
/// afterwards: the handler does not interrupt their work.
///
/// Threads: one object at a time, destroyed on the thread that made it. After it has gone the
/// signal is ignored.
class SignalWatch {
public:
    explicit SignalWatch(int signal);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    friend class SignalCaller;
    const int m_signal;
};

/// Calls a function for each signal that a SignalWatch notes, and once for those noted before.
///
/// Threads: `onSignal` is called on a thread that the object owns and its destructor joins. One
/// object at a time, which goes before its SignalWatch.
class SignalCaller {
public:
    SignalCaller(const SignalWatch& watch, std::function<void()> onSignal);
    ~SignalCaller();
    SignalCaller(const SignalCaller&) = delete;
    SignalCaller& operator=(const SignalCaller&) = delete;

private:
    std::thread m_thread;
};

} // namespace quendo::host
