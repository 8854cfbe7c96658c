#pragma once

#include <functional>
#include <thread>

namespace quendo::host {

/// Notices that the reader of standard output has gone while there is nothing to write to it, as
/// that of `quendo watch | head -1`.
///
/// Threads: `onClosed` is called at most once, on a thread that the object owns and its destructor
/// joins; never when standard output is neither a pipe nor a socket.
class OutputWatch {
public:
    explicit OutputWatch(std::function<void()> onClosed);
    ~OutputWatch();
    OutputWatch(const OutputWatch&) = delete;
    OutputWatch& operator=(const OutputWatch&) = delete;

private:
    const int m_stop;
    std::thread m_thread;
};

} // namespace quendo::host
