#pragma once

#include "quendo/adapter/CMAdapter.h"
#include "quendo/platform/Export.h"

#include <atomic>
#include <chrono>
#include <memory>

namespace quendo {

/// Adds up the time that status queries of one adapter take. An adapter that has one gives a
/// `QueryMeter*` by getSubsystem(typeid(QueryMeter)); who keeps the meter longer takes
/// shared_from_this().
///
/// Threads: any.
class QUENDO_API QueryMeter : public std::enable_shared_from_this<QueryMeter> {
public:
    using Duration = std::chrono::steady_clock::duration;

    void add(Duration time) noexcept { m_spent += time.count(); }

    /// Since the adapter was made.
    Duration spent() const noexcept { return Duration(m_spent.load()); }

private:
    std::atomic<Duration::rep> m_spent{0};
};

/// `adapter` with a meter. Stands below a SingleThreadedCMAdapter, so that the time for which a
/// query waits for its turn does not count. Null stays null.
QUENDO_API std::unique_ptr<CMAdapter> meterQueries(std::unique_ptr<CMAdapter> adapter);

} // namespace quendo
