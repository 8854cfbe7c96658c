#pragma once

#include "quendo/adapter/CMInteractor.h"

#include <boost/signals2/connection.hpp>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace quendo::host {

/// A line on standard error that says how far the work is, when that is a terminal and the work
/// takes over half a second. It is gone without a trace after finish().
class Progress {
public:
    explicit Progress(std::shared_ptr<CMInteractor> interactor);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Takes the line away. May be called more than once.
    void finish();

private:
    void show() noexcept;
    std::string lineNow() const;

    const std::shared_ptr<CMInteractor> m_interactor;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_message; ///< guarded by m_mutex, as are the next two
    double m_fraction = 0;
    bool m_finished = false;
    boost::signals2::scoped_connection m_connection;
    std::thread m_thread;
};

} // namespace quendo::host
