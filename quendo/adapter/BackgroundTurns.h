#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UniqueFunction.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace quendo {

class Executor;

namespace platform {
class DelayedTaskService;
}

/// Decides when background queries run on one executor, so that they leave it to requested work and
/// cost little. BackgroundTurns.cpp describes how.
///
/// A cache that has nothing but background work makes a request and goes on when its turn is
/// granted. One turn is granted at a time, so requested work meets at most one background query.
/// A client that does not use its turn loses it. SingleThreadedCMAdapter reports what each query
/// costs, and when work waits.
///
/// Threads: any. Callbacks run without a lock, on the thread of a request, of the end of a turn, or
/// of the delayed tasks; they must be quick.
class QUENDO_API BackgroundTurns : public std::enable_shared_from_this<BackgroundTurns> {
public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        /// Part of one core that background queries may take, over any `window`.
        double share = 0.2;
        std::chrono::milliseconds window{10'000};
        /// Without a request for this long, what waits may use the part of the share that is kept
        /// for the end of a burst.
        std::chrono::milliseconds calm{100};
        /// No client waits longer after a query of its own because of what that query cost.
        std::chrono::milliseconds longestPause{60'000};
        /// Time that a query has on the executor while others wait; doubled after each interruption
        /// of its client, five times at most. As long may a client have its turn, with no query
        /// at the executor, while other clients wait.
        std::chrono::milliseconds timeLimit{3'000};
        std::shared_ptr<platform::DelayedTaskService> delayedTasks = nullptr; ///< null: services()
        std::function<Clock::time_point()> now = Clock::now;
    };

    struct Callbacks {
        /// The client's turn has come: it runs one job and calls Client::end(). A client that takes
        /// too long before its query finds Client::turn() changed, and requests another one.
        std::function<void()> granted;
        /// Others have waited too long for the query of this turn: stop it. The turn still ends
        /// with Client::end(). The call may come late: `turn` is the Client::turn() that it is for.
        std::function<void(std::uint64_t turn)> interrupt;
    };

    /// One source of background work. Destroying it ends its turn and its request; a callback may
    /// be under way then, so callbacks hold weakly what may go before.
    class QUENDO_API Client {
    public:
        ~Client();
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;

        /// Requests a turn. While one is requested, only notes that there is more to do; between
        /// a grant and its end(), requests the next.
        void request();

        /// The turn is over; without one, withdraws the request.
        /// @param wasInterrupted whether the query was stopped by `interrupt`
        void end(bool wasInterrupted = false);

        /// Requested work waits for this client's query, so this turn may be interrupted. Without
        /// effect when the client has no turn.
        void noteAwaited() noexcept;

        /// The number of the turn that it has now, different for each; 0 when it has none, or has
        /// lost the one that was granted.
        std::uint64_t turn() const noexcept;

        /// When the requested turn is due; empty when none is requested.
        std::optional<Clock::time_point> dueAt() const;

    private:
        friend class BackgroundTurns;
        struct State;
        Client(std::shared_ptr<BackgroundTurns> owner, std::shared_ptr<State> state);

        const std::shared_ptr<BackgroundTurns> m_owner;
        const std::shared_ptr<State> m_state;
    };

    /// Marks work that waits for the executor, from its construction until started() or its
    /// destruction. Movable.
    class QUENDO_API Waiting {
    public:
        Waiting() noexcept = default;
        /// @param isBackground whether it is a query of the turn that is granted; else requested
        explicit Waiting(std::shared_ptr<BackgroundTurns> turns, bool isBackground = false);
        Waiting(Waiting&& other) noexcept = default;
        Waiting& operator=(Waiting&&) = delete;
        ~Waiting();
        void started() noexcept;

    private:
        std::shared_ptr<BackgroundTurns> m_turns;
        bool m_isBackground = false;
    };

    explicit BackgroundTurns(Options options);
    ~BackgroundTurns();
    BackgroundTurns(const BackgroundTurns&) = delete;
    BackgroundTurns& operator=(const BackgroundTurns&) = delete;

    /// The turns of an executor: the same object for everybody while it is held.
    static std::shared_ptr<BackgroundTurns> of(const std::shared_ptr<const Executor>& executor);

    std::unique_ptr<Client> addClient(Callbacks callbacks);

    /// Replaces Options::share; 0 ends the pacing, and leaves the order and the interruptions.
    void setShare(double share);

    /// A query of the turn that is granted now has started on the executor, or has ended there.
    /// Without effect when no turn is granted.
    /// @param cost processor time, which is added to the cost of the turn
    void queryStarted() noexcept;
    void queryEnded(Clock::duration cost) noexcept;

private:
    struct Impl;
    void step() noexcept;
    void stepLater(Clock::time_point when, Clock::time_point now);

    const std::unique_ptr<Impl> m_impl;
};

} // namespace quendo
