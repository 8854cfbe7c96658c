#include "quendo/cache/CMStatusCacheStatistics.h"

#include <array>
#include <ctime>
#include <sstream>

namespace quendo {
namespace {

using Result = CacheStatistics::Result;

/// "12:00:59.123", local.
std::string timeText(CacheStatistics::TimePoint time) {
    const auto seconds = std::chrono::system_clock::to_time_t(time);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(
        time - std::chrono::floor<std::chrono::seconds>(time));
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    const auto digits = std::to_string(1000 + milliseconds.count());
    return text.data() + ("." + digits.substr(1));
}

std::string durationText(std::chrono::microseconds duration) {
    const auto tenths = (duration.count() + 50) / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " ms";
}

std::string visible(std::string text) {
    for (auto& character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20 || code == 0x7f)
            character = '?';
    }
    return text;
}

std::string targetText(const CacheStatistics::Target& target) {
    auto text = (target.isFolder ? "folder " : "file ") + visible(target.path.toUtf8());
    if (target.count > 1)
        text += " and " + std::to_string(target.count - 1) + " more";
    return text;
}

std::string failureText(const std::string& failure) {
    return failure.empty() ? std::string() : ": " + visible(failure);
}

} // namespace

CMStatusCacheStatistics::~CMStatusCacheStatistics() = default;

std::string_view toString(Result result) noexcept {
    switch (result) {
    case Result::Succeeded:
        return "succeeded";
    case Result::Failed:
        return "failed";
    case Result::Cancelled:
        return "cancelled";
    case Result::Skipped:
        return "skipped";
    case Result::Interrupted:
        return "interrupted";
    }
    return "unknown";
}

std::string describe(const CacheStatistics& statistics) {
    std::ostringstream out;
    out << "refreshes by reason:\n";
    for (std::size_t i = 0; i < refreshReasonCount; ++i) {
        const auto& counts = statistics.counts[i];
        if (counts.requests + counts.queries + counts.skipped == 0)
            continue;
        out << "  " << toString(static_cast<RefreshReason>(i)) << ": " << counts.requests
            << " requests, " << counts.queries << " queries (" << counts.failed << " failed, "
            << counts.cancelled << " cancelled, " << counts.interrupted << " interrupted), "
            << counts.skipped << " skipped; " << durationText(counts.total) << " in total, "
            << durationText(counts.longest) << " the longest\n";
    }
    out << "queued: " << statistics.queuedRefreshes << " refreshes of " << statistics.queuedPaths
        << " paths\n";
    if (const auto& running = statistics.running)
        out << "running: " << targetText(running->target) << " (" << toString(running->reason)
            << (running->urgency == QueryUrgency::Background ? ", background" : "") << ") since "
            << timeText(running->started) << "\n";
    out << "to be retried: " << statistics.retryPaths << " paths";
    if (statistics.nextRetry)
        out << ", next at " << timeText(*statistics.nextRetry);
    out << "\nlast refreshes:\n";
    for (const auto& refresh : statistics.last)
        out << "  " << timeText(refresh.started) << " " << targetText(refresh.target) << " ("
            << toString(refresh.reason) << ") " << toString(refresh.result) << " after "
            << durationText(refresh.duration) << failureText(refresh.failure) << "\n";
    return out.str();
}

} // namespace quendo
