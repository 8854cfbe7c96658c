#include "quendo/cache/PendingEvents.h"

#include "quendo/platform/Logging.h"

#include <algorithm>
#include <utility>

namespace quendo {
namespace {

std::size_t depthOf(const Path& path) {
    return static_cast<std::size_t>(std::ranges::count(path.string(), u'/'));
}

void merge(PendingEvents::Event& target, const PendingEvents::Event& event) noexcept {
    if (target.kinds == 0)
        target = event;
    target.kinds |= event.kinds;
    target.first = std::min(target.first, event.first);
    target.last = std::max(target.last, event.last);
}

} // namespace

PendingEvents::PendingEvents(Path root, std::size_t most) : m_root(std::move(root)), m_most(most) {}

void PendingEvents::add(const Path& path, unsigned kinds, Clock::time_point now) noexcept {
    add(path, {kinds, now, now});
}

void PendingEvents::add(const Path& path, const Event& event) noexcept {
    const std::lock_guard lock(m_mutex);
    try {
        join(path, event);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        m_lostSince = std::min(m_lostSince.value_or(event.first), event.first);
    }
}

void PendingEvents::add(const Events& events) noexcept {
    for (const auto& [path, event] : events)
        add(path, event);
}

void PendingEvents::join(const Path& path, const Event& event) {
    if (path != m_root && !path.isBelow(m_root)) {
        if ((event.kinds & ContentsUnknown) != 0 && m_root.isBelow(path))
            join(m_root, event);
        return;
    }
    if (m_hasFolded && (event.kinds & Forbidden) == 0) {
        for (Path folder = path; folder == m_root || folder.isBelow(m_root);
             folder = folder.parentPath()) {
            const auto around = m_events.find(folder);
            if (around != m_events.end() && (around->second.kinds & Folded) != 0)
                return merge(around->second, {0, event.first, event.last});
        }
    }
    merge(m_events[path], event);
    if (m_events.size() > m_most)
        fold();
}

// Replaces the deepest entries by their folders, level by level, until half of the allowed number
// is left. So what lies together comes together. If more than that have a forbidden name in them,
// which no folder above can stand for, the root replaces everything, as one whose contents are
// unknown. Either way the next fold is at least half of the allowed number of events away.
void PendingEvents::fold() {
    std::map<std::size_t, std::size_t> entriesByDepth;
    for (const auto& [path, event] : m_events)
        if (path != m_root && (event.kinds & Forbidden) == 0)
            ++entriesByDepth[depthOf(path)];
    Events folded = m_events;
    const auto rootDepth = depthOf(m_root);
    for (auto depth = entriesByDepth.empty() ? 0 : entriesByDepth.rbegin()->first;
         depth > rootDepth && folded.size() > m_most / 2; --depth) {
        Events folders;
        for (auto at = folded.begin(); at != folded.end();) {
            const auto& [path, event] = *at;
            if ((event.kinds & Forbidden) != 0 || depthOf(path) != depth) {
                ++at;
                continue;
            }
            merge(folders[path.parentPath()], {Folded, event.first, event.last});
            at = folded.erase(at);
        }
        for (const auto& [path, event] : folders)
            merge(folded[path], event);
    }
    if (folded.size() > m_most / 2 + 1) {
        Event all;
        for (const auto& [path, event] : folded)
            merge(all, {ContentsUnknown | Folded, event.first, event.last});
        folded = {{m_root, all}};
    }
    m_events.swap(folded);
    m_hasFolded = true;
}

PendingEvents::Events PendingEvents::take() {
    Events taken; // what is left behind is destroyed without the lock
    const std::lock_guard lock(m_mutex);
    if (m_lostSince)
        merge(m_events[m_root], {ContentsUnknown | Folded, *m_lostSince, Clock::now()});
    m_lostSince.reset();
    m_hasFolded = false;
    taken.swap(m_events);
    return taken;
}

bool PendingEvents::empty() const noexcept {
    const std::lock_guard lock(m_mutex);
    return m_events.empty() && !m_lostSince;
}

std::size_t PendingEvents::size() const noexcept {
    const std::lock_guard lock(m_mutex);
    return m_events.size() + (m_lostSince ? 1 : 0);
}

std::optional<PendingEvents::Clock::time_point>
PendingEvents::since(const Path& path, const std::set<UString>& metadataNames) const {
    const std::lock_guard lock(m_mutex);
    auto result = m_lostSince;
    if (m_events.empty())
        return result;
    const auto note = [&](const Path& at) {
        const auto found = m_events.find(at);
        if (found != m_events.end())
            result = std::min(result.value_or(found->second.first), found->second.first);
    };
    for (Path at = path; at == m_root || at.isBelow(m_root); at = at.parentPath()) {
        note(at);
        for (const auto& name : metadataNames)
            note(at / name);
    }
    return result;
}

std::optional<PendingEvents::Clock::time_point> PendingEvents::oldest() const {
    const std::lock_guard lock(m_mutex);
    auto result = m_lostSince;
    for (const auto& [path, event] : m_events)
        result = std::min(result.value_or(event.first), event.first);
    return result;
}

} // namespace quendo
