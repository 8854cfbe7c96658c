#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorTurn.h"
#include "quendo/platform/standard/SingleThreadExecutor.h"
#include "quendo/platform/standard/StrandPool.h"
#include "tests/support/Testing.h"

#include <pthread.h>

namespace quendo::platform {
namespace {

using test::onThread;
using test::within;

using Make = std::shared_ptr<Executor> (*)(const std::string&, ThreadStarter);

class Executors : public testing::TestWithParam<std::pair<const char*, Make>> {
protected:
    static std::shared_ptr<Executor> make(const std::string& name = "test",
                                          ThreadStarter starter = startDetachedThread) {
        return GetParam().second(name, std::move(starter));
    }
};

const std::pair<const char*, Make> kinds[] = {
    {"SingleThread",
     [](const std::string& name, ThreadStarter starter) -> std::shared_ptr<Executor> {
         return std::make_shared<SingleThreadExecutor>(name, starter);
     }},
    {"Strand", [](const std::string& name, ThreadStarter starter) {
         return StrandPool({std::chrono::milliseconds(50), starter}).createStrand(name);
     }}};
INSTANTIATE_TEST_SUITE_P(Kinds, Executors, testing::ValuesIn(kinds),
                         [](const auto& kind) { return kind.param.first; });

std::vector<std::shared_ptr<Executor>> strandsOf(StrandPool& pool, std::size_t count) {
    std::vector<std::shared_ptr<Executor>> strands(count);
    std::ranges::generate(strands, [&] { return pool.createStrand("strand"); });
    return strands;
}

TEST_P(Executors, RunTasksOfManyThreadsOneAtATimeAndInOrder) {
    const auto executor = make();
    int seen[4] = {}, running = 0; // plain: the sanitizer tells when two tasks meet
    test::onThreads(4, [&](int thread) {
        for (int i = 0; i < 500; ++i)
            executor->post([&, thread, i] {
                EXPECT_EQ(++running, 1);
                EXPECT_EQ(seen[thread]++, i);
                --running;
            });
    });
    within(executor->runAsyncTask([] {}));
    for (const int count : seen)
        EXPECT_EQ(count, 500);
}

TEST_P(Executors, GiveResultsAndTheVeryExceptionBack) {
    const auto executor = make("größer-als-fünfzehn");
    EXPECT_EQ(*executor->runSyncTask([] { return std::make_unique<int>(42); }), 42);
    char name[16] = {};
    executor->runSyncTask([&] { pthread_getname_np(pthread_self(), name, sizeof name); });
    EXPECT_STREQ(name, "größer-als-f") << "whole characters";
    const auto thrown = std::make_exception_ptr(std::runtime_error("inside"));
    try {
        executor->runSyncTask([&] { std::rethrow_exception(thrown); });
        FAIL();
    } catch (const std::exception&) {
        EXPECT_EQ(std::current_exception(), thrown);
    }
}

TEST_P(Executors, LogWhatTasksThrowAndMayEndInsideTheirOwn) {
    test::LogCapture log;
    auto executor = make();
    executor->post([] { throw std::runtime_error("lost otherwise"); });
    EXPECT_EQ(executor->runSyncTask([] { return 1; }), 1);
    EXPECT_EQ(log.count("Exception caught: "), 1U);
    std::promise<void> mayDrop;
    executor->post([self = executor, go = mayDrop.get_future()]() mutable {
        within(std::move(go));
        self.reset();
    });
    auto queued = executor->runAsyncTask([] {});
    executor.reset();
    mayDrop.set_value();
    within(std::move(queued));
}

TEST_P(Executors, TakeTheTaskBackWhenNoThreadCanBeHad) {
    bool failing = true;
    const auto executor = make("starved", [&](UniqueFunction<void()> body) {
        if (failing)
            throw std::system_error(EAGAIN, std::generic_category());
        startDetachedThread(std::move(body));
    });
    const auto held = std::make_shared<int>(0);
    EXPECT_THROW(executor->post([held] { ++*held; }), std::system_error);
    EXPECT_EQ(held.use_count(), 1);
    failing = false;
    EXPECT_EQ(executor->runSyncTask([&] { return ++*held; }), 1) << "nothing ran twice";
}

TEST_P(Executors, LetOnlyQueriesOfOthersPassWhoWaitsOutside) {
    const bool serves = GetParam().first == kinds[0].first;
    int threads = 0;
    const auto executor = make("test", [&](UniqueFunction<void()> body) {
        if (++threads == 2) // the first query has to wait for the next task to be queued
            throw std::system_error(EAGAIN, std::generic_category());
        startDetachedThread(std::move(body));
    });
    const auto fork = [&](const char16_t* copy, bool isQuery, UniqueFunction<void()> task) {
        std::promise<void> ended;
        auto future = ended.get_future();
        executor->postFor({Path(copy), isQuery},
                          [task = std::move(task), ended = std::move(ended)]() mutable {
                              task();
                              ended.set_value();
                          });
        return future;
    };
    std::string order;
    std::promise<void> outside, goOn;
    auto operation = fork(u"/a", false, [&] {
        {
            const OutsideExecutor one, two;
            outside.set_value();
            within(goOn.get_future());
            EXPECT_THROW(executor->runSyncTask([] {}), ExecutorDeadlockError);
        }
        order += "A";
    });
    within(outside.get_future());
    const auto run = [&](const char16_t* copy, bool isQuery, char name) {
        return fork(copy, isQuery, [&, name] {
            const OutsideExecutor nothing; // a query on the second thread keeps its turn
            EXPECT_TRUE(executor->isRunningInThisThread());
            EXPECT_THROW(executor->runSyncTask([] {}), ExecutorDeadlockError);
            order += name;
        });
    };
    auto first = run(u"/c", true, 'c');
    std::vector<std::future<void>> held;
    held.push_back(run(u"/a", true, 'a'));
    held.push_back(run(u"/b", false, 'B'));
    held.push_back(run(u"/b", true, 'b'));
    auto second = run(u"/d", true, 'd');
    if (serves) {
        within(std::move(first));
        within(std::move(second));
    }
    executor->post([&] { order += "."; });
    held.push_back(run(u"/d", true, 'e'));
    goOn.set_value();
    for (within(std::move(operation)); !held.empty(); held.pop_back())
        within(std::move(held.back()));
    EXPECT_EQ(order, serves ? "cdAaBb.e" : "AcaBbd.e");
}

TEST(SingleThreadExecutor, StormOfOperationsOutsideKeepsTurnsAndOrder) {
    SingleThreadExecutor executor("storm");
    int running = 0, seen[3][3] = {}; // plain: the sanitizer tells when two tasks meet
    test::onThreads(9, [&](int thread) {
        const int copy = thread % 3, kind = thread / 3;
        for (int i = 0; i < 200; ++i)
            executor.runSyncTaskFor({Path(std::u16string(1, u'a' + copy)), kind > 0}, [&, i] {
                EXPECT_EQ(++running, 1);
                EXPECT_EQ(seen[copy][kind]++, i);
                --running;
                const auto before = seen[copy][1] + seen[copy][2];
                { const OutsideExecutor outside; }
                EXPECT_EQ(++running, 1);
                EXPECT_EQ(before, seen[copy][1] + seen[copy][2]) << "of one working copy";
                --running;
            });
    });
}

TEST(StrandPool, StrandsThatWaitForOthersStarveNone) {
    StrandPool pool;
    const auto strands = strandsOf(pool, 40);
    std::function<int(std::size_t)> descend = [&](std::size_t i) -> int {
        return i == strands.size() ? 0
                                   : 1 + strands[i]->runSyncTask([&, i] { return descend(i + 1); });
    };
    EXPECT_EQ(within(onThread([&] { return descend(0); })), 40);
    EXPECT_LE(pool.workerCount(), 40U);
}

TEST(StrandPool, TenThousandIdleStrandsHoldNoThread) {
    StrandPool pool({std::chrono::milliseconds(20)});
    const auto strands = strandsOf(pool, 10'000);
    for (const auto& strand : strands)
        within(strand->runAsyncTask([] {}));
    EXPECT_TRUE(pool.waitForAtMost(0, test::byDeadline())) << pool.workerCount() << " workers";
    EXPECT_EQ(within(strands.front()->runAsyncTask([] { return 7; })), 7);
}

TEST(StrandPool, StormOfStrandsAndDyingWorkersLosesNoTask) {
    StrandPool pool({std::chrono::milliseconds(0)}); // every pause ends a worker
    const auto strands = strandsOf(pool, 8);
    int counts[8] = {};
    test::onThreads(3, [&](int) {
        for (int i = 0; i < 1'600; ++i)
            strands[i % 8]->post([&counts, i] { ++counts[i % 8]; });
    });
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(within(strands[i]->runAsyncTask([&, i] { return counts[i]; })), 600);
}

} // namespace
} // namespace quendo::platform
