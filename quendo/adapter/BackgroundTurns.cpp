#include "quendo/adapter/BackgroundTurns.h"

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

// Background queries share one executor with everything that a user waits for, and one machine with
// the user's own programs. Two hundred working copies in which something happens could use all of
// both. So a background query needs a turn.
//
//   request --> waiting --> granted (one at a time) --> end
//                  ^                     |
//                  '--- due time,        +--- interrupted after `timeLimit` if others wait
//                       calm             '--- lost after `timeLimit` without a query if others wait
//
// Pacing. After a turn that cost c, its client is due again c * N / (share / 5) later, where N is
// the number of clients with requests within the last `window`. So all clients together take a
// fifth of the share while events keep coming, and a client whose queries are expensive delays
// itself and not the others. The first request after a pause finds its client due: it is granted at
// once. A turn that was granted early, and cost less than the one before, shortens no pause.
//
// The rest of the share is for the end of a burst. When no request came for `calm`, the clients
// that wait are granted their turns early, the one that is due first at first, until the turns of
// the last `window` have cost the whole share.
//
// While a client waits for its turn, what else it has to query joins what it has asked for
// already: a long pause costs few queries.
//
// Interruption. When a query has run on the executor for longer than its client's time limit, and
// requested work or another client waits, the client is interrupted. Its limit doubles each time,
// until a turn ends without that, so that a query that needs long comes to its end some day.
//
// Loss. A client may hang where no query is there to be interrupted: in a listener that shows a
// dialog or waits for a lock of the user interface, before or after its query, or with requested
// work. Then the turn is lost: another client is granted one, and a query that has not begun does
// not begin. The client that lost it is not granted another one before its end(), so it delays the
// others once, by its time limit, which doubles as after an interruption. A query that waits for
// the executor loses nothing, however long that takes: if it did, the queries of all clients would
// come to stand in the executor's queue, in front of what is requested then.
//
// Not guaranteed: a single query may cost more than the whole share. The pauses after it are
// bounded (`longestPause`), so queries that take longer than some seconds get more than the share.

namespace quendo {

namespace {

using Clock = BackgroundTurns::Clock;
constexpr unsigned mostDoublings = 5;
constexpr double partWhileBusy = 0.2; // of the share
// A delayed task cannot be taken back, and keeps a thread of the service until it has run.
constexpr std::chrono::milliseconds longestTimer{1'000};

} // namespace

struct BackgroundTurns::Client::State {
    explicit State(Callbacks functions) : callbacks(std::move(functions)) {}

    const Callbacks callbacks;
    // Guarded by the owner's mutex.
    bool isWaiting = false;
    bool isGranted = false;        ///< until end(), also when it has lost the turn
    bool isRequestedAgain = false; ///< while it is granted
    bool isGone = false;
    Clock::time_point due{};
    Clock::time_point lastRequest = Clock::time_point::min();
    unsigned interruptions = 0; ///< in a row
};

struct BackgroundTurns::Impl {
    using ClientState = std::shared_ptr<Client::State>;

    explicit Impl(Options given) : options(std::move(given)) {
        if (options.delayedTasks == nullptr)
            options.delayedTasks = platform::services()->delayedTasks;
    }

    Options options;

    std::mutex mutex;
    // Guarded by `mutex`.
    std::list<ClientState> clients;
    ClientState holder;
    std::uint64_t turn = 0;                        ///< the number of that turn
    std::optional<Clock::time_point> runningSince; ///< the query of that turn
    Clock::time_point idleSince{};                 ///< that turn, while it has no query
    std::size_t queriesWaiting = 0;                ///< background ones, for the executor
    Clock::duration cost{};                        ///< of the turn that is granted
    bool isInterrupted = false;
    bool isAwaited = false; ///< by requested work of the same client
    std::size_t requestedWaiting = 0;
    Clock::time_point lastRequest = Clock::time_point::min();
    std::deque<std::pair<Clock::time_point, Clock::duration>> spent; ///< ends and costs of turns
    std::optional<Clock::time_point> alarm; ///< the earliest timer that is set

    Clock::time_point windowStart(Clock::time_point now) const { return now - options.window; }

    std::size_t activeClients(Clock::time_point now) const {
        const auto active = std::ranges::count_if(
            clients, [&](const auto& each) { return each->lastRequest >= windowStart(now); });
        return std::max<std::size_t>(1, static_cast<std::size_t>(active));
    }

    Clock::duration pauseAfter(Clock::duration turn, Clock::time_point now) const {
        if (options.share <= 0)
            return {};
        const double pause = static_cast<double>(turn.count()) *
                             static_cast<double>(activeClients(now)) /
                             (options.share * partWhileBusy);
        const auto longest = Clock::duration(options.longestPause);
        return pause < static_cast<double>(longest.count())
                   ? Clock::duration(static_cast<Clock::rep>(pause))
                   : longest;
    }

    Clock::duration limitOf(const Client::State& client) const {
        return options.timeLimit * (1 << std::min(client.interruptions, mostDoublings));
    }

    /// When the turns of the last window will have cost less than the share.
    Clock::time_point roomAt(Clock::time_point now) {
        while (!spent.empty() && spent.front().first <= windowStart(now))
            spent.pop_front();
        const auto allowed = std::chrono::duration<double>(options.window).count() * options.share;
        double sum = 0;
        for (auto at = spent.rbegin(); at != spent.rend(); ++at) {
            sum += std::chrono::duration<double>(at->second).count();
            if (sum >= allowed)
                return at->first + options.window;
        }
        return now;
    }

    /// Grants a turn if one can be granted now; else finds out when to look again.
    /// @return the client, or null
    ClientState grantNext(Clock::time_point now, std::optional<Clock::time_point>& lookAgain) {
        if (holder != nullptr)
            return nullptr;
        ClientState next;
        for (const auto& each : clients)
            if (each->isWaiting && (next == nullptr || each->due < next->due))
                next = each;
        if (next == nullptr)
            return nullptr;
        if (next->due > now) {
            const auto early = std::max(lastRequest + options.calm, roomAt(now));
            if (early > now) {
                lookAgain = std::min(next->due, early);
                return nullptr;
            }
        }
        next->isWaiting = false;
        next->isGranted = true;
        holder = next;
        ++turn;
        idleSince = now;
        runningSince.reset();
        cost = {};
        isInterrupted = isAwaited = false;
        return next;
    }

    bool anyClientWaits() const {
        return std::ranges::any_of(clients, [](const auto& each) { return each->isWaiting; });
    }

    /// Ends the turn that is granted, and counts its cost.
    void endTurn(Clock::time_point now) {
        // After an early grant an older pause may not be over yet.
        holder->due = std::max(holder->due, now + pauseAfter(cost, now));
        holder = nullptr;
        if (cost > Clock::duration::zero())
            spent.emplace_back(now, cost);
    }

    /// When the turn that is granted is lost; empty while nothing tells against it.
    std::optional<Clock::time_point> lossAt() const {
        if (holder == nullptr || runningSince || queriesWaiting != 0 || !anyClientWaits())
            return std::nullopt;
        return idleSince + limitOf(*holder);
    }

    void takeBackIfLost(Clock::time_point now) {
        const auto loss = lossAt();
        if (!loss || now < *loss)
            return;
        ++holder->interruptions;
        endTurn(now);
    }

    /// The client to interrupt now, or null; or when to look again.
    ClientState overdue(Clock::time_point now, std::optional<Clock::time_point>& lookAgain) {
        if (holder == nullptr || !runningSince) {
            lookAgain = lossAt();
            return nullptr;
        }
        if (isInterrupted || (!isAwaited && requestedWaiting == 0 && !anyClientWaits()))
            return nullptr;
        const auto end = *runningSince + limitOf(*holder);
        if (now < end) {
            lookAgain = end;
            return nullptr;
        }
        isInterrupted = true;
        ++holder->interruptions;
        return holder;
    }
};

BackgroundTurns::BackgroundTurns(Options options)
    : m_impl(std::make_unique<Impl>(std::move(options))) {}

BackgroundTurns::~BackgroundTurns() = default;

std::shared_ptr<BackgroundTurns>
BackgroundTurns::of(const std::shared_ptr<const Executor>& executor) {
    using Key = std::weak_ptr<const Executor>;
    struct All {
        std::mutex mutex;
        std::map<Key, std::weak_ptr<BackgroundTurns>, std::owner_less<Key>> turns;
    };
    static auto& all = *new All; // threads of the library run until the process ends
    const std::lock_guard lock(all.mutex);
    std::erase_if(all.turns, [](const auto& entry) { return entry.second.expired(); });
    auto& entry = all.turns[executor];
    auto turns = entry.lock();
    if (turns == nullptr)
        entry = turns = std::make_shared<BackgroundTurns>(Options());
    return turns;
}

std::unique_ptr<BackgroundTurns::Client> BackgroundTurns::addClient(Callbacks callbacks) {
    auto state = std::make_shared<Client::State>(std::move(callbacks));
    {
        const std::lock_guard lock(m_impl->mutex);
        m_impl->clients.push_back(state);
    }
    return std::unique_ptr<Client>(new Client(shared_from_this(), std::move(state)));
}

void BackgroundTurns::setShare(double share) {
    const std::lock_guard lock(m_impl->mutex);
    m_impl->options.share = share;
}

void BackgroundTurns::queryStarted() noexcept {
    {
        const std::lock_guard lock(m_impl->mutex);
        if (m_impl->holder == nullptr)
            return;
        m_impl->runningSince = m_impl->options.now();
    }
    step(); // who waits already waits for this query from now on
}

void BackgroundTurns::queryEnded(Clock::duration cost) noexcept {
    {
        const std::lock_guard lock(m_impl->mutex);
        m_impl->runningSince.reset();
        if (m_impl->holder == nullptr)
            return;
        m_impl->cost += cost;
        m_impl->idleSince = m_impl->options.now();
    }
    step(); // from now on it may be lost
}

// Does what is due: takes a turn back, grants or interrupts one, or sets a timer for that.
void BackgroundTurns::step() noexcept {
    Impl::ClientState granted, interrupted;
    std::uint64_t interruptedTurn = 0;
    try {
        const std::lock_guard lock(m_impl->mutex);
        const auto now = m_impl->options.now();
        std::optional<Clock::time_point> nextGrant, nextInterruption;
        m_impl->takeBackIfLost(now);
        granted = m_impl->grantNext(now, nextGrant);
        interrupted = m_impl->overdue(now, nextInterruption);
        interruptedTurn = m_impl->turn;
        const auto next = nextGrant ? nextGrant : nextInterruption; // one of them at most
        if (next && (!m_impl->alarm || *next < *m_impl->alarm))
            stepLater(*next, now);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION(); // no timer: the next request or end of a turn looks again
    }
    try {
        if (interrupted != nullptr)
            interrupted->callbacks.interrupt(interruptedTurn);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
    try {
        if (granted != nullptr)
            granted->callbacks.granted();
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        // The client cannot work now, for example for lack of a thread.
        const std::lock_guard lock(m_impl->mutex);
        if (m_impl->holder == granted)
            m_impl->holder = nullptr;
        if (std::exchange(granted->isGranted, false)) {
            granted->isWaiting = !granted->isGone;
            granted->due = m_impl->options.now() + std::chrono::seconds(1);
            m_impl->alarm.reset();
        }
    }
}

/// With the mutex held.
void BackgroundTurns::stepLater(Clock::time_point when, Clock::time_point now) {
    m_impl->options.delayedTasks->runAfter(
        std::clamp(std::chrono::ceil<std::chrono::milliseconds>(when - now),
                   std::chrono::milliseconds(1), longestTimer),
        [weak = weak_from_this()] {
            const auto self = weak.lock();
            if (self == nullptr)
                return;
            {
                const std::lock_guard lock(self->m_impl->mutex);
                self->m_impl->alarm.reset();
            }
            self->step();
        });
    m_impl->alarm = when;
}

BackgroundTurns::Client::Client(std::shared_ptr<BackgroundTurns> owner,
                                std::shared_ptr<State> state)
    : m_owner(std::move(owner)), m_state(std::move(state)) {}

BackgroundTurns::Client::~Client() {
    {
        const std::lock_guard lock(m_owner->m_impl->mutex);
        m_state->isGone = true;
        std::erase(m_owner->m_impl->clients, m_state);
    }
    end();
}

void BackgroundTurns::Client::request() {
    auto& impl = *m_owner->m_impl;
    {
        const std::lock_guard lock(impl.mutex);
        impl.lastRequest = m_state->lastRequest = impl.options.now();
        if (m_state->isGranted) {
            m_state->isRequestedAgain = true;
            return;
        }
        if (m_state->isWaiting)
            return;
        m_state->isWaiting = true;
    }
    m_owner->step();
}

void BackgroundTurns::Client::end(bool wasInterrupted) {
    auto& impl = *m_owner->m_impl;
    {
        const std::lock_guard lock(impl.mutex);
        m_state->isWaiting = std::exchange(m_state->isRequestedAgain, false) && !m_state->isGone;
        m_state->isGranted = false;
        if (impl.holder == m_state) {
            impl.endTurn(impl.options.now());
            if (!wasInterrupted)
                m_state->interruptions = 0;
        }
    }
    m_owner->step();
}

void BackgroundTurns::Client::noteAwaited() noexcept {
    auto& impl = *m_owner->m_impl;
    {
        const std::lock_guard lock(impl.mutex);
        if (impl.holder != m_state)
            return;
        impl.isAwaited = true;
    }
    m_owner->step();
}

std::uint64_t BackgroundTurns::Client::turn() const noexcept {
    const std::lock_guard lock(m_owner->m_impl->mutex);
    return m_owner->m_impl->holder == m_state ? m_owner->m_impl->turn : 0;
}

std::optional<BackgroundTurns::Clock::time_point> BackgroundTurns::Client::dueAt() const {
    const std::lock_guard lock(m_owner->m_impl->mutex);
    return m_state->isWaiting ? std::optional(m_state->due) : std::nullopt;
}

BackgroundTurns::Waiting::Waiting(std::shared_ptr<BackgroundTurns> turns, bool isBackground)
    : m_turns(std::move(turns)), m_isBackground(isBackground) {
    {
        const std::lock_guard lock(m_turns->m_impl->mutex);
        ++(isBackground ? m_turns->m_impl->queriesWaiting : m_turns->m_impl->requestedWaiting);
    }
    if (!isBackground)
        m_turns->step();
}

BackgroundTurns::Waiting::~Waiting() {
    const auto turns = m_isBackground ? m_turns : nullptr;
    started();
    if (turns != nullptr)
        turns->step(); // no query follows, so the turn may be lost
}

void BackgroundTurns::Waiting::started() noexcept {
    const auto turns = std::exchange(m_turns, nullptr);
    if (turns == nullptr)
        return;
    auto& impl = *turns->m_impl;
    const std::lock_guard lock(impl.mutex);
    --(m_isBackground ? impl.queriesWaiting : impl.requestedWaiting);
    if (m_isBackground)
        impl.idleSince = impl.options.now();
}

} // namespace quendo
