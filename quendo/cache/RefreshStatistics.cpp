#include "quendo/cache/RefreshStatistics.h"

#include "quendo/exception/ErrorText.h"

#include <algorithm>
#include <string>
#include <utility>

namespace quendo {
namespace {

constexpr std::size_t longestText = 300;

std::string textOf(const std::exception_ptr& failure) noexcept {
    try {
        auto text = exception::errorText(failure);
        auto size = std::min(text.size(), longestText);
        while (size != 0 && size != text.size() && (text[size] & 0xc0) == 0x80)
            --size; // not in the middle of a character
        text.resize(size);
        return text;
    } catch (...) {
        return {};
    }
}

} // namespace

void RefreshStatistics::noteRequest(RefreshReason reason) noexcept {
    const std::lock_guard lock(m_mutex);
    ++m_counts[static_cast<std::size_t>(reason)].requests;
}

void RefreshStatistics::begin(RefreshReason reason, QueryUrgency urgency,
                              const CacheStatistics::Target& target) noexcept {
    const std::lock_guard lock(m_mutex);
    m_running = {std::chrono::system_clock::now(), reason, target, urgency};
    m_runningSince = std::chrono::steady_clock::now();
}

void RefreshStatistics::end(Result result, const std::exception_ptr& failure) noexcept {
    auto text = textOf(failure);
    CacheStatistics::Refresh oldest; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    if (!m_running)
        return;
    const auto duration = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - m_runningSince);
    auto& counts = m_counts[static_cast<std::size_t>(m_running->reason)];
    if (result == Result::Skipped) {
        ++counts.skipped;
    } else {
        ++counts.queries;
        counts.failed += result == Result::Failed ? 1 : 0;
        counts.cancelled += result == Result::Cancelled ? 1 : 0;
        counts.interrupted += result == Result::Interrupted ? 1 : 0;
        counts.total += duration;
        counts.longest = std::max(counts.longest, duration);
    }
    oldest = std::exchange(m_last[m_refreshes++ % mostRefreshes],
                           {m_running->started, m_running->reason, std::move(m_running->target),
                            duration, result, std::move(text)});
    m_running.reset();
}

CacheStatistics RefreshStatistics::get() const {
    CacheStatistics result;
    const std::lock_guard lock(m_mutex);
    result.counts = m_counts;
    result.running = m_running;
    const auto count = std::min(m_refreshes, mostRefreshes);
    result.last.reserve(count);
    for (auto i = m_refreshes - count; i != m_refreshes; ++i)
        result.last.push_back(m_last[i % mostRefreshes]);
    return result;
}

} // namespace quendo
