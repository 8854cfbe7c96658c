#include "quendo/git/SuspendedFilters.h"

#include <algorithm>
#include <sstream>
#include <string_view>

namespace quendo::git {
namespace {

constexpr std::size_t mostEntries = 64;
constexpr int longestPause = 32; // times the first

/// Whether one of `running` runs a program that `commands` name.
bool runs(const std::vector<std::string>& running, const std::string& commands) {
    std::istringstream lines(commands);
    for (std::string line; std::getline(lines, line);) {
        // The shell that git runs it in has the whole line among its arguments, but for what git
        // puts in place of %f; the program itself begins with the first word.
        const auto word = line.substr(0, line.find_first_of(" \t"));
        const auto name = word.substr(word.rfind('/') + 1);
        if (!name.empty() && std::ranges::any_of(running, [&](const std::string& one) {
                return one.find(name) != std::string::npos;
            }))
            return true;
    }
    return false;
}

} // namespace

std::set<std::string> SuspendedFilters::among(const Drivers& drivers, Clock::time_point now) const {
    std::set<std::string> names;
    const std::lock_guard lock(m_lock);
    for (const auto& [name, entry] : m_entries)
        if (const auto driver = drivers.find(name);
            driver != drivers.end() && driver->second == entry.commands && now < entry.until)
            names.insert(name);
    return names;
}

std::set<std::string> SuspendedFilters::suspend(const Drivers& drivers,
                                                const std::vector<std::string>& running,
                                                Clock::time_point now) {
    std::set<std::string> names;
    if (running.empty())
        return names;
    for (const auto& [name, commands] : drivers)
        if (runs(running, commands))
            names.insert(name);
    if (names.empty())
        for (const auto& [name, commands] : drivers)
            names.insert(name);
    const std::lock_guard lock(m_lock);
    // One that has run well for as long as it was suspended starts anew.
    std::erase_if(m_entries, [&](const auto& entry) {
        return now >= entry.second.until + entry.second.pause;
    });
    for (const auto& name : names) {
        const auto& commands = drivers.at(name);
        const auto known = m_entries.find(name);
        auto pause = m_pause;
        if (known != m_entries.end() && known->second.commands == commands)
            pause = std::min(known->second.pause * 2, m_pause * longestPause);
        if (known != m_entries.end() || m_entries.size() < mostEntries)
            m_entries.insert_or_assign(name, Entry{commands, now + pause, pause});
    }
    return names;
}

} // namespace quendo::git
