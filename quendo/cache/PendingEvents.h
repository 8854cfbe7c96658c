#pragma once

#include "quendo/platform/Path.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>

namespace quendo {

/// What has happened to paths and has led to no refresh yet: one entry for each path, however many
/// events name it, and at most about `most` entries. Past that number folders stand for what lies
/// in them, and past half of it, where nothing else can, the root for everything.
///
/// Threads: any.
class PendingEvents {
public:
    using Clock = std::chrono::steady_clock;

    /// Bits; an entry has one for each kind of event that named the path.
    enum Kind : unsigned {
        Created = 1,
        Changed = 2,
        Deleted = 4,
        ContentsUnknown = 8, ///< anything may have changed at the path and below it
        Dependency = 16,     ///< something elsewhere changed on which all states there depend
        Forbidden = 32,      ///< an entry with a forbidden name in the folder; no folder above it
                             ///< stands for this
        Folded = 64,         ///< the folder stands for entries below it
    };

    struct Event {
        unsigned kinds = 0;
        Clock::time_point first; ///< when the first event came
        Clock::time_point last;
    };
    using Events = std::map<Path, Event>;

    /// Of a working copy: neither an entry above `root` nor one beside it is kept.
    explicit PendingEvents(Path root, std::size_t most = 4096);

    /// If there is no memory, all below the root counts as unknown.
    void add(const Path& path, unsigned kinds, Clock::time_point now = Clock::now()) noexcept;

    void add(const Path& path, const Event& event) noexcept;

    /// As add(); nothing of `events` is lost when there is no memory.
    void add(const Events& events) noexcept;

    /// Removes all entries. @throws std::bad_alloc; the entries stay
    Events take();

    bool empty() const noexcept;
    std::size_t size() const noexcept;

    /// Since when the state of `path` may be outdated by a pending event: of the path itself, of a
    /// folder around it, or of a metadata file in one of these.
    std::optional<Clock::time_point> since(const Path& path,
                                           const std::set<UString>& metadataNames) const;

    /// Of the entry whose first event is the oldest.
    std::optional<Clock::time_point> oldest() const;

private:
    void join(const Path& path, const Event& event);
    void fold();

    const Path m_root;
    const std::size_t m_most;

    mutable std::mutex m_mutex; ///< guards the rest; no other lock is taken while it is held
    Events m_events;
    bool m_hasFolded = false;
    std::optional<Clock::time_point> m_lostSince; ///< for lack of memory
};

} // namespace quendo
