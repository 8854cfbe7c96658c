#include "quendo/adapter/BackgroundTurns.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/platform/DelayedTaskService.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedDetection.h"
#include "tests/support/Testing.h"
#include "tests/support/ThreadClock.h"

namespace quendo {
namespace {

using namespace std::chrono_literals;
using Clock = BackgroundTurns::Clock;

/// Time passes when the test says so.
struct FakeTime final : platform::DelayedTaskService {
    void runAfter(std::chrono::milliseconds delay, UniqueFunction<void()> task) override {
        tasks.emplace(now + delay, std::move(task));
    }
    void advance(Clock::duration duration) {
        const auto end = now + duration;
        while (!tasks.empty() && tasks.begin()->first <= end) {
            now = std::max(now, tasks.begin()->first);
            auto task = std::move(tasks.begin()->second);
            tasks.erase(tasks.begin());
            task();
        }
        now = end;
    }
    Clock::time_point now{1h};
    std::multimap<Clock::time_point, UniqueFunction<void()>> tasks;
};

class BackgroundTurnsTest : public testing::Test {
protected:
    std::unique_ptr<BackgroundTurns::Client> add(std::string name) {
        return turns->addClient(
            {[this, name] { log += name + " "; }, [this, name](auto) { log += name + "! "; }});
    }
    /// The query of the turn that is granted, from its start to its end.
    void run(BackgroundTurns::Client& client, Clock::duration cost, bool wasInterrupted = false) {
        turns->queryStarted();
        time->advance(cost);
        turns->queryEnded(cost);
        client.end(wasInterrupted);
    }
    std::string takeLog() { return std::exchange(log, {}); }

    const std::shared_ptr<FakeTime> time = std::make_shared<FakeTime>();
    const std::shared_ptr<BackgroundTurns> turns = [this] {
        BackgroundTurns::Options options;
        options.delayedTasks = time;
        options.now = [this] { return time->now; };
        return std::make_shared<BackgroundTurns>(options);
    }();
    std::string log;
};

TEST_F(BackgroundTurnsTest, GrantsOneAtATimeAndTheFirstAtOnce) {
    auto a = add("a"), b = add("b"), c = add("c");
    a->request();
    a->request();
    b->request();
    c->request();
    EXPECT_EQ(takeLog(), "a ");
    c.reset(); // what waited does so no longer
    a->end();
    EXPECT_EQ(takeLog(), "b ") << "a was requested again during its turn, and waits behind b";
    b.reset(); // its turn ends with it
    EXPECT_EQ(takeLog(), "a ");
    a->end();
    time->advance(1h);
    EXPECT_EQ(takeLog(), "");
}

// However many clients there are, and whatever their queries cost.
TEST_F(BackgroundTurnsTest, TakesTheShareOfOneCoreOverAnyTenSeconds) {
    for (const auto& [clients, cost] : {std::pair(1, 50ms), {1, 900ms}, {20, 5ms}, {200, 8ms}}) {
        struct Turn {
            Clock::time_point end;
            Clock::duration cost;
        };
        std::vector<Turn> done;
        std::vector<int> granted;
        std::vector<std::unique_ptr<BackgroundTurns::Client>> all;
        std::vector<int> turnsOf(static_cast<std::size_t>(clients));
        for (int i = 0; i < clients; ++i)
            all.push_back(turns->addClient({[&granted, i] { granted.push_back(i); }, {}}));
        const auto serve = [&] {
            while (!granted.empty()) {
                const auto which = static_cast<std::size_t>(granted.back());
                granted.pop_back();
                ++turnsOf[which];
                const auto begin = time->now;
                run(*all[which], cost);
                done.push_back({time->now, time->now - begin});
            }
        };
        for (const auto end = time->now + 60s; time->now < end; time->advance(20ms)) {
            for (const auto& each : all)
                each->request();
            serve();
        }
        const auto last = time->now;
        while (time->now < last + 2s) { // nothing comes any more: what waits is let go early
            time->advance(20ms);
            serve();
        }
        for (const auto& each : all)
            EXPECT_FALSE(each->dueAt()) << clients << " clients, still waits";
        double worst = 0;
        for (std::size_t from = 0; from < done.size(); ++from) {
            double sum = 0;
            for (auto i = from; i < done.size() && done[i].end <= done[from].end + 10s; ++i)
                sum += std::chrono::duration<double>(done[i].cost).count();
            worst = std::max(worst, sum);
        }
        EXPECT_LE(worst, 2.0 + 2 * std::chrono::duration<double>(cost).count()) << clients;
        const auto [least, most] = std::ranges::minmax(turnsOf);
        EXPECT_LE(most - least, 3) << "one of " << clients << " is served more than another";
        EXPECT_GE(least, 2);
    }
}

TEST_F(BackgroundTurnsTest, AnExpensiveClientDelaysItselfOnly) {
    auto heavy = add("heavy"), light = add("light");
    heavy->request();
    run(*heavy, 4s);
    takeLog();
    int turnsOfLight = 0;
    for (const auto end = time->now + 30s; time->now < end; time->advance(50ms)) {
        heavy->request();
        light->request();
        const auto granted = takeLog();
        if (granted.empty())
            continue;
        ASSERT_EQ(granted, "light ");
        run(*light, 10ms);
        ++turnsOfLight;
    }
    EXPECT_GE(turnsOfLight, 45);
    light->end();
    time->advance(1s); // calm, and what it cost is long ago
    EXPECT_EQ(takeLog(), "heavy ");
    heavy->request();
    heavy->end(); // it had nothing to do, and still has to wait
    EXPECT_GT(heavy->dueAt(), time->now + 20s);
}

TEST_F(BackgroundTurnsTest, InterruptsWhatOthersWaitForAndGivesMoreTimeThen) {
    auto a = add("a");
    const auto awaited = [&](Clock::duration limit) {
        a->request();
        time->advance(2min); // pacing is not the matter here
        EXPECT_EQ(takeLog(), "a ");
        turns->queryStarted();
        time->advance(10min);
        EXPECT_EQ(takeLog(), "") << "nobody waits";
        turns->queryStarted(); // another one of the same turn
        BackgroundTurns::Waiting waiting(turns);
        time->advance(limit - 1ms);
        EXPECT_EQ(takeLog(), "");
        time->advance(2ms);
        EXPECT_EQ(takeLog(), "a! ");
        time->advance(1h);
        EXPECT_EQ(takeLog(), "");
    };
    for (const auto limit : {3s, 6s, 12s, 24s, 48s, 96s, 96s}) {
        awaited(limit);
        a->end(true);
    }
    awaited(96s);
    a->end(false);
    awaited(3s);
    a->end(true);

    // Another client counts as well; one that waits on the executor for something else does not.
    auto b = add("b");
    time->advance(1h);
    a->request();
    b->request();
    EXPECT_EQ(takeLog(), "a ");
    turns->queryStarted();
    time->advance(7s);
    EXPECT_EQ(takeLog(), "a! ");
    a->end(true);
    EXPECT_EQ(takeLog(), "b ");
}

// A listener may hang before or after the query, which is not at the executor then.
TEST_F(BackgroundTurnsTest, OthersAreServedWhileAClientDoesNotUseItsTurn) {
    auto a = add("a"), b = add("b");
    std::uint64_t last = 0;
    const auto hang = [&](Clock::duration limit, bool afterQuery) {
        time->advance(5min); // pacing is not the matter here
        a->request();
        EXPECT_EQ(takeLog(), "a ");
        EXPECT_GT(a->turn(), std::exchange(last, a->turn()));
        b->request();
        {
            const BackgroundTurns::Waiting waiting(turns, true);
            time->advance(1h);
            EXPECT_EQ(takeLog(), "") << "it waits for the executor";
        }
        if (afterQuery) {
            turns->queryStarted();
            time->advance(1s);
            turns->queryEnded(1s);
        }
        time->advance(limit - 1ms);
        EXPECT_EQ(takeLog(), "");
        time->advance(2ms);
        EXPECT_EQ(takeLog(), "b ");
        EXPECT_EQ(a->turn(), 0U);
        a->request();
        b->end();
        time->advance(1h);
        EXPECT_EQ(takeLog(), "") << "a has not ended the turn that it has lost";
        b->request();
        EXPECT_EQ(takeLog(), "b ");
        const auto now = time->now;
        b->end();
        a->end();
        EXPECT_EQ(takeLog(), "a ") << "what it requested meanwhile";
        EXPECT_EQ(time->now, now);
    };
    hang(3s, true);
    a->end(true); // as after an interruption, the limit doubles until a turn is used
    hang(6s, false);
    a->end();
    hang(3s, false);
}

TEST_F(BackgroundTurnsTest, ComesBackToAClientThatCouldNotWork) {
    bool fails = true;
    auto a = turns->addClient({[&] {
                                   log += "a ";
                                   if (fails)
                                       throw std::bad_alloc();
                               },
                               {}});
    a->request();
    EXPECT_EQ(takeLog(), "a ");
    auto b = add("b");
    b->request();
    fails = false;
    time->advance(1s);
    EXPECT_EQ(takeLog(), "b ");
    b->end();
    time->advance(1s);
    EXPECT_EQ(takeLog(), "a ");
}

// What the adapter's layer reports: the cost of background queries, and what else waits.
TEST(BackgroundTurns, KnowTheQueriesOfTheirExecutor) {
    const test::TemporaryFolder folder;
    const auto root = folder.quendoPath();
    const auto executor = std::make_shared<test::SteppedExecutor>("test");
    const auto turns = BackgroundTurns::of(executor);
    EXPECT_EQ(turns, BackgroundTurns::of(executor));
    EXPECT_NE(turns, BackgroundTurns::of(std::make_shared<test::SteppedExecutor>("other")));
    const auto copy = std::make_shared<test::MemoryWorkingCopy>(root);
    SingleThreadedCMAdapter adapter(executor, test::makeMemoryAdapter(copy));
    int granted = 0;
    std::atomic<int> interrupted = 0;
    const auto client = turns->addClient({[&] { ++granted; }, [&](auto) { ++interrupted; }});
    std::vector<std::future<void>> queries;
    // Its thread waits for the executor, at a time when the limit of what runs there has passed.
    const auto queueQuery = [&](QueryUrgency urgency) {
        const auto before = executor->size();
        queries.push_back(test::onThread([&adapter, root, urgency] {
            test::clockAhead = 10min;
            const QueryOrigin::WorkScope scope(std::make_shared<QueryOrigin>(urgency));
            adapter.getStatus(root, true);
        }));
        while (executor->size() == before)
            std::this_thread::yield();
    };
    client->request();
    EXPECT_EQ(granted, 1);
    copy->inCall = [&](const auto&...) {
        if (queries.size() != 1)
            return;
        queueQuery(QueryUrgency::Background);
        EXPECT_EQ(interrupted, 0);
        queueQuery(QueryUrgency::Requested);
        EXPECT_EQ(interrupted, 1);
        test::clockAhead = 1min; // what the query costs
    };
    queueQuery(QueryUrgency::Background);
    executor->runOne();
    client->end();
    client->request();
    ASSERT_TRUE(client->dueAt());
    EXPECT_GT(*client->dueAt(), Clock::now() + 30s);
    while (executor->runOne()) {
    }
    for (auto& query : queries)
        test::within(std::move(query));
    test::clockAhead = 0s;
}

} // namespace
} // namespace quendo
