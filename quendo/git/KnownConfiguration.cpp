#include "quendo/git/KnownConfiguration.h"

#include <utility>

namespace quendo::git {

std::optional<std::string> KnownConfiguration::find(const std::string& configuration,
                                                    Clock::time_point now) const {
    const std::lock_guard lock(m_lock);
    if (!m_since || now - *m_since >= longest || configuration != m_configuration)
        return std::nullopt;
    return m_answer;
}

void KnownConfiguration::keep(std::string configuration, std::string answer,
                              Clock::time_point now) {
    const std::lock_guard lock(m_lock);
    m_configuration = std::move(configuration);
    m_answer = std::move(answer);
    m_since = now;
}

} // namespace quendo::git
