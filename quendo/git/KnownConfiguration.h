#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

namespace quendo::git {

/// The last answer of `git config` about one repository, for as long as the configuration files
/// hold what they held then: every query needs it, and asking takes git as long as answering a
/// query for a file.
///
/// git may read a file that nobody here knows of, and may have been at fault when it answered, so
/// an answer counts for `longest` at most.
///
/// Threads: any.
class KnownConfiguration {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::minutes longest{1};

    /// @param configuration as NamedFiles::configuration
    /// @return the answer, if the configuration is the same as when it was given
    std::optional<std::string> find(const std::string& configuration,
                                    Clock::time_point now = Clock::now()) const;

    /// @param configuration that held before and after git gave the answer
    void keep(std::string configuration, std::string answer, Clock::time_point now = Clock::now());

private:
    mutable std::mutex m_lock;
    // Guarded by m_lock:
    std::string m_configuration, m_answer;
    std::optional<Clock::time_point> m_since; ///< nothing: none is known
};

} // namespace quendo::git
