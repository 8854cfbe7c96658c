#include "quendo/cache/RefreshPacer.h"

#include <algorithm>

namespace quendo {

RefreshPacer::Duration RefreshPacer::budget(TimePoint now) const noexcept {
    const auto passed = std::clamp(now - m_at, Duration{}, Duration(std::chrono::hours(1)));
    return std::min(most, m_budget + passed * 15 / 100);
}

RefreshPacer::Duration RefreshPacer::needed() const noexcept {
    return std::min(m_lastCost, most);
}

RefreshPacer::Duration RefreshPacer::delay(TimePoint now) const noexcept {
    const auto missing = needed() - budget(now);
    return missing <= Duration{} ? Duration{} : missing * 100 / 15 + Duration(1);
}

void RefreshPacer::spend(Duration cost, TimePoint now) noexcept {
    m_lastCost = std::clamp(cost, Duration{}, Duration(std::chrono::hours(1)));
    // What delay() gives then is at most the longest wait.
    const auto longest = std::max(longestWait, 5 * m_lastCost);
    m_budget = std::max(budget(now) - m_lastCost, needed() - longest * 15 / 100);
    m_at = now;
}

void RefreshPacer::endDelay(TimePoint now) noexcept {
    m_budget = std::max(budget(now), needed());
    m_at = now;
}

} // namespace quendo
