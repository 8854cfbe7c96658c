#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace quendo::git {

/// The filters of the user's own that hung, or used more than a reading git may, in one working
/// copy. Reading does without them for a while, as it does without those that only the repository
/// names: a server that is gone costs its working copy a minute once, and not at each query.
///
/// A filter is tried again after `pause`, which doubles each time that it fails again, up to 32
/// times its length, and at once when its commands change.
///
/// Threads: any.
class SuspendedFilters {
public:
    using Clock = std::chrono::steady_clock;
    /// By name: what the user's configuration runs for it.
    using Drivers = std::map<std::string, std::string>;

    explicit SuspendedFilters(std::chrono::milliseconds pause) : m_pause(pause) {}

    /// Which of `drivers` are not to be run now.
    std::set<std::string> among(const Drivers& drivers, Clock::time_point now = Clock::now()) const;

    /// @param running command lines of what git had started when it was ended
    /// @return those of `drivers` that ran, which are suspended from now on; all of them when git
    ///         had started something that cannot be told
    std::set<std::string> suspend(const Drivers& drivers, const std::vector<std::string>& running,
                                  Clock::time_point now = Clock::now());

private:
    struct Entry {
        std::string commands;
        Clock::time_point until;
        std::chrono::milliseconds pause;
    };

    const std::chrono::milliseconds m_pause;
    mutable std::mutex m_lock;
    std::map<std::string, Entry> m_entries; ///< by name; guarded by m_lock
};

} // namespace quendo::git
