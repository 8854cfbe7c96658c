#pragma once

#include "quendo/platform/Path.h"

#include <algorithm>
#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <utility>

namespace quendo::platform {

/// Says which polled folder is looked at next, and when.
///
/// The folders stand in groups, one for each working copy. A pass looks at each folder of a group
/// once; the next pass begins after the interval, or after ten times what the pass took if that is
/// more. Passes of several groups take turns in slices, and after each slice polling rests for
/// thrice its time. So polling takes at most a quarter of one thread, and a slice of one group
/// waits for at most one slice, with its rest, of each other group, however large that is.
///
/// Threads: external locking.
template <class Member>
class PollSchedule {
    struct Group;

public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;

    static constexpr std::chrono::milliseconds slice{20};

    /// Where a member stands.
    class Place {
    public:
        explicit operator bool() const noexcept { return m_group != nullptr; }

    private:
        friend PollSchedule;
        std::shared_ptr<Group> m_group;
        typename std::list<Member>::iterator m_at;
    };

    explicit PollSchedule(Clock::duration interval) : m_interval(interval) {}

    Place add(const Path& root, Member member, Time now) {
        const auto [at, isNew] = m_groups.try_emplace(root);
        if (isNew) {
            at->second = std::make_shared<Group>(root);
            at->second->next = at->second->members.end();
            at->second->due = now + m_interval;
        }
        Place place;
        place.m_at = at->second->members.insert(at->second->members.end(), std::move(member));
        place.m_group = at->second;
        return place;
    }

    void remove(Place& place) noexcept {
        const auto group = std::exchange(place.m_group, nullptr);
        if (group->next == place.m_at)
            ++group->next;
        group->members.erase(place.m_at);
        if (group->members.empty())
            m_groups.erase(group->root);
    }

    bool empty() const noexcept { return m_groups.empty(); }

    /// When the next slice may begin.
    std::optional<Time> nextSlice() const {
        if (m_groups.empty())
            return std::nullopt;
        const auto first = std::ranges::min_element(
            m_groups, {}, [](const auto& entry) { return entry.second->due; });
        return std::max(m_restUntil, first->second->due);
    }

    /// Makes the next pass of all groups begin at `now`.
    void hurry(Time now) {
        m_restUntil = now;
        for (const auto& [root, group] : m_groups)
            group->due = std::min(group->due, now);
    }

    /// Begins no slice before `time`.
    void restUntil(Time time) noexcept { m_restUntil = time; }

    /// Begins a slice of the group whose turn it is.
    /// @return whether one was due
    bool begin(Time now) {
        m_current = nullptr;
        // From the one behind the last one on, and around.
        auto at = m_groups.upper_bound(m_last);
        for (std::size_t i = 0; i < m_groups.size(); ++i, ++at) {
            if (at == m_groups.end())
                at = m_groups.begin();
            if (at->second->due > now)
                continue;
            m_current = at->second;
            m_last = at->first;
            if (!m_current->isInPass) {
                m_current->isInPass = true;
                m_current->next = m_current->members.begin();
            }
            return true;
        }
        return false;
    }

    /// The next member of the group whose slice this is; null when its pass is over.
    const Member* next() {
        return m_current->next == m_current->members.end() ? nullptr : &*m_current->next++;
    }

    void end(Time begin, Time now) {
        const auto took = now - begin;
        m_restUntil = now + 3 * took;
        m_current->spent += took;
        if (m_current->next == m_current->members.end()) {
            m_current->isInPass = false;
            m_current->due = now + std::max(m_interval, 10 * std::exchange(m_current->spent, {}));
        }
        m_current = nullptr;
    }

private:
    struct Group {
        explicit Group(const Path& path) : root(path) {}

        const Path root;
        std::list<Member> members;
        typename std::list<Member>::iterator next;
        bool isInPass = false;
        Clock::duration spent{};
        Time due;
    };

    const Clock::duration m_interval;
    std::map<Path, std::shared_ptr<Group>> m_groups;
    std::shared_ptr<Group> m_current; ///< whose slice it is
    Path m_last;                      ///< whose slice it was last
    Time m_restUntil;
};

} // namespace quendo::platform
