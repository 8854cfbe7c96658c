#pragma once

#include "quendo/adapter/CMInteractor.h"

#include <boost/signals2/connection.hpp>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace quendo::host {

/// A line on standard error that shows what is being done, how far it is where that is known, and
/// for how long; only on a terminal, and when the work takes over half a second. finish() removes
/// it.
class Progress {
public:
    explicit Progress(const std::vector<std::shared_ptr<CMInteractor>>& interactors);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Takes the line away. May be called more than once.
    void finish();

    /// Writes a line of its own on standard error, above the progress line.
    void note(std::string_view message);

private:
    void show() noexcept;
    std::string lineNow() const;

    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_message; ///< guarded by m_mutex, as are the next three
    std::string m_drawn;   ///< the line on the terminal
    double m_fraction = 0;
    bool m_finished = false;
    std::vector<boost::signals2::scoped_connection> m_connections;
    std::thread m_thread;
};

} // namespace quendo::host
