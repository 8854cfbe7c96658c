#pragma once

#include "quendo/platform/Path.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <mutex>

namespace quendo {

/// The last events of a working copy and what became of them, for a debug dump.
///
/// Threads: any.
class EventLog {
public:
    enum class Outcome {
        Disabled,   ///< dropped, because detection is disabled
        NoQuery,    ///< cannot change the cached state, or is covered by a newer answer
        FileQuery,  ///< the path is queried
        FolderQuery ///< the path, or a folder around it, is queried with all below it
    };

    void add(const Path& path, unsigned kinds, Outcome outcome) noexcept;

    /// One line for each event, the oldest first.
    void print(std::ostream& out) const;

private:
    struct Entry {
        std::chrono::system_clock::time_point time;
        Path path;
        unsigned kinds = 0; ///< bits of PendingEvents::Kind
        Outcome outcome{};
    };

    mutable std::mutex m_mutex;
    std::array<Entry, 50> m_entries; ///< guarded by m_mutex, as is the rest
    std::size_t m_added = 0;
};

} // namespace quendo
