#include "quendo/git/FailedQueries.h"

#include "quendo/git/Repository.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <sys/stat.h>

// Problem: a query that ends at a bound has cost a minute of processor time. A cache asks again
// until it has an answer, every 30 s at the longest, so one repository that no git can read would
// take the source-control thread for good.
//
// So a query that nobody waits for (QueryUrgency::Background) fails at once, with the error of the
// last time, while
//
// - the pause since then is not over. It is ten times what the query cost, and doubles each time,
//   up to sixty times the cost and to an hour; or
// - half a minute has not passed, when a file has changed that may be the cause: index, HEAD,
//   configuration, the ignore and attributes files that every query reads, and the file that looked
//   suspicious when the query failed.
//
// A query that hung costs no processor, and what it waited for may come back at any time: its pause
// is two to ten times what it cost.
//
// Somebody who waits is answered by git each time, and an answer ends the pause.
//
// Queries are told apart by their kind and paths: one for other paths may well be answered. A query
// counts as failed when one that failed asked for a part of it. Beyond `mostQueries` that failed,
// every query of the kind counts as failed: then the repository as a whole is the cause.

namespace quendo::git {
namespace {

constexpr std::size_t mostQueries = 4;
constexpr std::size_t mostPaths = 64; // of one query; beyond, it stands for everything
constexpr std::chrono::seconds afterAChange{30};
constexpr std::chrono::hours longestPause{1};

bool isWithin(std::string_view path, std::string_view folder) {
    return folder.empty() || path == folder ||
           (path.starts_with(folder) && path[folder.size()] == '/');
}

/// Whether whoever answers `query` answers `part` as well.
bool covers(const FailedQueries::Query& query, const FailedQueries::Query& part) {
    if (query.kind != part.kind || query.paths.empty())
        return query.kind == part.kind;
    return !part.paths.empty() && std::ranges::all_of(part.paths, [&](const std::string& one) {
        return std::ranges::any_of(query.paths,
                                   [&](const std::string& path) { return isWithin(one, path); });
    });
}

std::vector<long long> stampOf(const std::string& file) {
    struct stat status;
    if (::stat(file.c_str(), &status) != 0)
        return {};
    return {static_cast<long long>(status.st_ino), status.st_size, status.st_ctim.tv_sec,
            status.st_ctim.tv_nsec};
}

} // namespace

FailedQueries::Stamps FailedQueries::stampsOf(const Repository& repository) {
    Stamps stamps;
    for (const auto& file :
         {repository.gitDir() + "/index", repository.gitDir() + "/HEAD",
          repository.commonDir() + "/config", repository.commonDir() + "/info/exclude",
          repository.commonDir() + "/info/attributes", repository.root() + "/.gitignore",
          repository.root() + "/.gitattributes"})
        stamps.emplace_back(file, stampOf(file));
    return stamps;
}

void FailedQueries::throwIfKnown(const Query& query, Clock::time_point now) const {
    std::vector<Entry> known;
    {
        const std::lock_guard lock(m_lock);
        for (const auto& entry : m_entries)
            if (now < entry.failed + entry.pause && entry.query.kind == query.kind)
                known.push_back(entry);
    }
    if (known.size() < mostQueries)
        std::erase_if(known, [&](const Entry& entry) { return !covers(query, entry.query); });
    // Without the lock: this asks the file system.
    for (const auto& entry : known)
        if (now < entry.failed + afterAChange ||
            std::ranges::all_of(entry.stamps, [](const auto& stamp) {
                return stampOf(stamp.first) == stamp.second;
            }))
            entry.error->rethrow();
}

void FailedQueries::add(Query query, const Failure& failure, Clock::time_point now) {
    if (query.paths.size() > mostPaths)
        query.paths.clear();
    const auto first = failure.cost * (failure.hung ? 2 : 10),
               longest = failure.cost * (failure.hung ? 10 : 60);
    Entry entry{std::move(query), failure.error.clone(), failure.stamps, first, now};
    if (!failure.suspect.empty())
        entry.stamps.emplace_back(failure.suspect, stampOf(failure.suspect));
    const std::lock_guard lock(m_lock);
    const auto known = std::ranges::find_if(m_entries, [&](const Entry& one) {
        return one.query.kind == entry.query.kind && one.query.paths == entry.query.paths;
    });
    if (known != m_entries.end()) {
        entry.pause = std::min(known->pause * 2, longest);
        m_entries.erase(known);
    } else if (m_entries.size() >= 2 * mostQueries) {
        m_entries.erase(m_entries.begin()); // the oldest
    }
    entry.pause = std::min<std::chrono::milliseconds>(entry.pause, longestPause);
    m_entries.push_back(std::move(entry));
}

void FailedQueries::forget(const Query& query) {
    const std::lock_guard lock(m_lock);
    if (!m_entries.empty())
        std::erase_if(m_entries, [&](const Entry& entry) { return covers(query, entry.query); });
}

} // namespace quendo::git
