#include "quendo/cache/EventLog.h"

#include "quendo/cache/PendingEvents.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <ostream>
#include <string_view>
#include <utility>

namespace quendo {
namespace {

std::string_view toString(EventLog::Outcome outcome) {
    switch (outcome) {
    case EventLog::Outcome::Disabled:
        return "dropped: detection is disabled";
    case EventLog::Outcome::NoQuery:
        return "no query needed";
    case EventLog::Outcome::FileQuery:
        return "file queried";
    case EventLog::Outcome::FolderQuery:
        return "folder queried";
    }
    return "";
}

constexpr std::pair<unsigned, std::string_view> kindNames[] = {
    {PendingEvents::Created, "created"},       {PendingEvents::Changed, "changed"},
    {PendingEvents::Deleted, "deleted"},       {PendingEvents::ContentsUnknown, "contents-unknown"},
    {PendingEvents::Dependency, "dependency"}, {PendingEvents::Forbidden, "metadata-name"},
    {PendingEvents::Folded, "several-below"},
};

} // namespace

void EventLog::add(const Path& path, unsigned kinds, Outcome outcome) noexcept {
    Path old; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    auto& entry = m_entries[m_added++ % m_entries.size()];
    old = std::exchange(entry.path, path);
    entry.time = std::chrono::system_clock::now();
    entry.kinds = kinds;
    entry.outcome = outcome;
}

void EventLog::print(std::ostream& out) const {
    std::array<Entry, 50> entries;
    std::size_t added = 0;
    {
        const std::lock_guard lock(m_mutex);
        entries = m_entries;
        added = m_added;
    }
    const auto count = std::min(added, entries.size());
    for (auto i = added - count; i != added; ++i) {
        const auto& entry = entries[i % entries.size()];
        const auto time = std::chrono::floor<std::chrono::milliseconds>(entry.time);
        const auto seconds = std::chrono::system_clock::to_time_t(time);
        std::tm local{};
        ::localtime_r(&seconds, &local);
        out << "  " << std::put_time(&local, "%H:%M:%S") << '.' << std::setfill('0') << std::setw(3)
            << time.time_since_epoch().count() % 1000 << std::setfill(' ');
        for (const auto& [kind, name] : kindNames)
            if ((entry.kinds & kind) != 0)
                out << ' ' << name;
        out << ": " << entry.path.toUtf8() << ": " << toString(entry.outcome) << '\n';
    }
}

} // namespace quendo
