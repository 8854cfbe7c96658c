#pragma once

#include "quendo/platform/Export.h"

#include <atomic>
#include <chrono>
#include <memory>

namespace quendo {

/// How urgent a query is.
enum class QueryUrgency {
    Requested,  ///< somebody waits for the answer
    Background, ///< nobody does: it gives way to what was requested
};

/// One refresh of a cache, as far as stopping it goes, and how urgent it is.
///
/// The termination signal of a folder (Terminator) serves everything that works for the folder and
/// says nothing about who gave it. A refresh that is cancelled must stop its own query and nothing
/// else: not the check-in that happens to run, nor the query of somebody else. So
///
/// - who works for a refresh marks its thread with a WorkScope; layers that move a call to another
///   thread carry the mark over (SingleThreadedCMAdapter does);
/// - who cancels a refresh calls cancel() and then gives the termination signal inside a
///   TriggerScope of the same origin;
/// - a working-copy operation takes current() when it starts, stops at once when that origin is
///   cancelled already, and asks concerns() in its termination listener before it stops.
///
/// A signal without a mark is the host's own and concerns everybody.
///
/// Threads: any; the scopes belong to the thread that made them and nest.
class QUENDO_API QueryOrigin : public std::enable_shared_from_this<QueryOrigin> {
public:
    explicit QueryOrigin(QueryUrgency urgency = QueryUrgency::Requested) noexcept
        : m_urgency(urgency) {}

    QueryUrgency urgency() const noexcept { return m_urgency; }

    void cancel() noexcept { m_cancelled.store(true); }
    bool isCancelled() const noexcept { return m_cancelled.load(); }

    /// The processor time of programs that were run for it. An adapter that runs programs reports
    /// it, so that BackgroundTurns knows what a query cost. `time` is added.
    void addProgramTime(std::chrono::microseconds time) const noexcept {
        m_programTime += time.count();
        m_hasProgramTime = true;
    }
    std::chrono::microseconds programTime() const noexcept {
        return std::chrono::microseconds(m_programTime.load());
    }
    /// Whether it was reported, be it zero.
    bool hasProgramTime() const noexcept { return m_hasProgramTime; }

    /// What this thread works for; null when it works for no refresh.
    static std::shared_ptr<const QueryOrigin> current() noexcept;

    /// In a termination listener: whether the signal that is being given is meant for work that
    /// started with `work` as its current().
    static bool concerns(const std::shared_ptr<const QueryOrigin>& work) noexcept;

    /// While it lives, this thread works for `origin`, or for none when that is null.
    class QUENDO_API WorkScope {
    public:
        explicit WorkScope(std::shared_ptr<const QueryOrigin> origin) noexcept;
        ~WorkScope();
        WorkScope(const WorkScope&) = delete;
        WorkScope& operator=(const WorkScope&) = delete;

    private:
        const std::shared_ptr<const QueryOrigin> m_origin;
        const QueryOrigin* const m_outer;
    };

    /// While it lives, termination signals from this thread are meant for `origin` alone.
    class QUENDO_API TriggerScope {
    public:
        explicit TriggerScope(const QueryOrigin& origin) noexcept;
        ~TriggerScope();
        TriggerScope(const TriggerScope&) = delete;
        TriggerScope& operator=(const TriggerScope&) = delete;

    private:
        const QueryOrigin* const m_outer;
    };

private:
    const QueryUrgency m_urgency;
    std::atomic<bool> m_cancelled{false};
    mutable std::atomic<std::chrono::microseconds::rep> m_programTime{0};
    mutable std::atomic<bool> m_hasProgramTime{false};
};

} // namespace quendo
