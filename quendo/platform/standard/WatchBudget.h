#pragma once

#include "quendo/platform/Export.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

namespace quendo::platform {

/// How many inotify watches this process takes.
///
/// The kernel counts the watches of a user, over all processes. An eighth of the limit, at least
/// 512, but never more than half of it, is left to other programs. When the kernel refuses a watch
/// nevertheless, others have taken theirs: as many as that are given back then, and one eighth of
/// them is tried again each minute.
///
/// Threads: external locking.
class QUENDO_API WatchBudget {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// @param readLimit of the user
    explicit WatchBudget(std::function<std::size_t()> readLimit);

    /// Reads the limit again.
    void refresh(Time now);

    /// The kernel refused a watch while this process had `count`.
    void refused(std::size_t count, Time now);

    std::size_t most() const noexcept;

private:
    const std::function<std::size_t()> m_readLimit;
    std::size_t m_limit = 0;
    std::size_t m_reserve = 0;
    std::size_t m_ceiling; ///< set by a refusal
    Time m_raiseAt;
};

/// What each may have at most, so that `most` is shared fairly by those who want `wanted`: nobody
/// gets more while another wants more than it has. At least 1.
QUENDO_API std::size_t fairShare(std::vector<std::size_t> wanted, std::size_t most);

} // namespace quendo::platform
