#pragma once

#include "quendo/adapter/LocalStatus.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace quendo {

/// Numbers of cached entries by state. A state that LocalStatus does not name counts as Unknown.
class StatusCounts {
public:
    std::uint32_t operator[](LocalStatus status) const noexcept {
        return m_counts[indexOf(status)];
    }
    std::uint32_t& operator[](LocalStatus status) noexcept { return m_counts[indexOf(status)]; }

    std::uint32_t total() const noexcept {
        std::uint32_t sum = 0;
        for (const auto count : m_counts)
            sum += count;
        return sum;
    }

    /// Adds state by state, modulo 2^32: differences may be kept in the same type.
    StatusCounts& operator+=(const StatusCounts& other) noexcept {
        for (std::size_t i = 0; i < m_counts.size(); ++i)
            m_counts[i] += other.m_counts[i];
        return *this;
    }

    friend bool operator==(const StatusCounts&, const StatusCounts&) noexcept = default;

private:
    static constexpr std::size_t last = static_cast<std::size_t>(LocalStatus::Unknown);
    static std::size_t indexOf(LocalStatus status) noexcept {
        const auto index = static_cast<std::size_t>(status);
        return index < last ? index : last;
    }

    std::array<std::uint32_t, last + 1> m_counts{};
};

/// What a status cache holds of one folder. The folder's own entry is counted in its parent.
struct FolderSummary {
    StatusCounts direct; ///< entries whose parent is the folder, files and folders alike
    StatusCounts below;  ///< entries at any depth below it, the direct ones included

    friend bool operator==(const FolderSummary&, const FolderSummary&) noexcept = default;
};

/// How one update changed the set of folders that directly hold entries.
struct FolderSetChange {
    std::uint64_t version = 0; ///< the set's version that this change made
    std::vector<Path> appeared;
    std::vector<Path> vanished;
};

/// What a status cache knows about folders, kept up as entries change: nothing here walks the
/// cache. An optional interface of a CMStatusCache; reach it with dynamic_cast.
///
/// Threads: any; no operation waits for a refresh.
class QUENDO_API CMStatusCacheFolders {
public:
    using Slot = boost::signals2::slot<void(const FolderSetChange&)>;

    virtual ~CMStatusCacheFolders();

    /// The counts for `folder`; all zero when the cache holds nothing below it. Any folder may be
    /// asked about, also one above the root.
    virtual FolderSummary getFolderSummary(const Path& folder) const = 0;

    /// The folders that directly hold entries, in no order.
    virtual std::vector<Path> getFolders() const = 0;

    /// Grows exactly when the answer of getFolders() changes.
    virtual std::uint64_t getFolderSetVersion() const = 0;

    /// Called after each update that changed the set, with the difference, in the order of the
    /// versions, on the cache's strand and before the notice of connectCacheChanged().
    virtual boost::signals2::connection connectFoldersChanged(const Slot& slot) = 0;
};

} // namespace quendo
