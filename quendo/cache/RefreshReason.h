#pragma once

#include "quendo/platform/Export.h"

#include <cstddef>
#include <string_view>

namespace quendo {

/// Why a cache refreshes paths.
enum class RefreshReason {
    Client,         ///< a client of the cache requested it; the default
    OwnOperation,   ///< an operation of the working copy's own adapter changed the paths
    FileEvent,      ///< the paths changed on disk
    ExternalChange, ///< another program changed the metadata
    Dependency,     ///< something outside the folder changed on which the states depend
    EventsLost,     ///< events were lost, or a tree was moved: its contents are unknown
    RootReturned,   ///< the root was deleted or is there again
    Retry,          ///< an earlier refresh failed, was skipped or was interrupted
};

constexpr std::size_t refreshReasonCount = 8;

/// A word for people and dumps, such as "file event".
QUENDO_API std::string_view toString(RefreshReason reason) noexcept;

/// Whether somebody waits for the answer: true for Client and OwnOperation. The other reasons are
/// background work, which is paced and gives way to requested work.
constexpr bool isRequested(RefreshReason reason) noexcept {
    return reason == RefreshReason::Client || reason == RefreshReason::OwnOperation;
}

/// Sets the reason of the refreshes that this thread requests from a cache while the object lives.
/// Objects nest; the innermost counts.
///
/// Threads: belongs to the thread that made it.
class QUENDO_API RefreshReasonScope {
public:
    explicit RefreshReasonScope(RefreshReason reason) noexcept;
    ~RefreshReasonScope();
    RefreshReasonScope(const RefreshReasonScope&) = delete;
    RefreshReasonScope& operator=(const RefreshReasonScope&) = delete;

    /// The reason that counts on this thread now; Client without an object.
    static RefreshReason current() noexcept;

private:
    const RefreshReason m_outer;
};

} // namespace quendo
