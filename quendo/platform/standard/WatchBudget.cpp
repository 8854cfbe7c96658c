#include "quendo/platform/standard/WatchBudget.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace quendo::platform {
namespace {

constexpr std::size_t unlimited = SIZE_MAX;

} // namespace

WatchBudget::WatchBudget(std::function<std::size_t()> readLimit)
    : m_readLimit(std::move(readLimit)), m_ceiling(unlimited) {}

void WatchBudget::refresh(Time now) {
    m_limit = m_readLimit();
    m_reserve = std::min(std::max<std::size_t>(m_limit / 8, 512), m_limit / 2);
    if (m_ceiling != unlimited && now >= m_raiseAt) {
        m_ceiling += std::max<std::size_t>(m_reserve / 8, 1);
        m_raiseAt = now + std::chrono::minutes(1);
        if (m_ceiling >= m_limit - m_reserve)
            m_ceiling = unlimited;
    }
}

void WatchBudget::refused(std::size_t count, Time now) {
    // Several at once are one refusal.
    m_ceiling = std::min(m_ceiling, count - std::min(m_reserve, count / 2));
    m_raiseAt = now + std::chrono::minutes(1);
}

std::size_t WatchBudget::most() const noexcept {
    return std::min(m_limit - m_reserve, m_ceiling);
}

std::size_t fairShare(std::vector<std::size_t> wanted, std::size_t most) {
    std::ranges::sort(wanted);
    auto left = wanted.size();
    for (const auto each : wanted) {
        const auto share = most / left--;
        if (each > share)
            return std::max<std::size_t>(share, 1);
        most -= each;
    }
    return unlimited; // all can have what they want
}

} // namespace quendo::platform
