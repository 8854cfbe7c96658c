#include "quendo/adapter/QueryOrigin.h"
#include "quendo/cache/FileCacheUpdateJob.h"
#include "quendo/cache/RunningQuery.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/cache/CacheFixture.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/ThreadClock.h"

namespace quendo {
namespace {

using namespace std::chrono_literals;
using enum LocalStatus;
using enum RefreshReason;
using testing::Le;
using testing::SizeIs;
using Cause = Staleness::Cause;
using Cancelled = exception::OperationCancelledError;

/// A cache that retries when the test says so.
class HealingTest : public CacheFixture {
protected:
    HealingTest() {
        cache->setFolderStatusFlag(true);
        follow();
    }
    void follow() {
        cache->connectStalenessChanged(
            [this](const std::optional<Staleness>& staleness) { told.push_back(staleness); });
    }

    void requestFor(RefreshReason reason, const std::vector<std::string>& names) {
        const RefreshReasonScope scope(reason);
        std::vector<Path> files;
        for (const auto& name : names)
            files.push_back(at(name));
        cache->refreshCMStatuses(files);
    }
    void failFor(std::function<bool(const std::string&)> fails) {
        inQuery = [this, fails = std::move(fails)] {
            if (fails(queries.back()))
                throw std::runtime_error("mine");
        };
    }
    void failAlways() {
        failFor([](const auto&) { return true; });
    }
    /// Lets the timers that were started come, and runs what that brings.
    std::vector<std::chrono::milliseconds> retry() {
        auto delays = executors.endDelays();
        drain();
        return delays;
    }
    Freshness::Refresh refreshOf(const std::string& name) {
        return cache->getFreshness(at(name)).refresh;
    }

    std::vector<std::optional<Staleness>> told;
};

TEST_F(HealingTest, RetriesAtGrowingIntervalsAndSaysSinceWhen) {
    set("a");
    refresh(".");
    set("a", Modified);
    failAlways();
    const auto start = std::chrono::steady_clock::now();
    requestFor(FileEvent, {"a"});
    const auto since = cache->getStaleness()->since;
    EXPECT_GE(since, start);
    EXPECT_EQ(cache->getStaleness()->cause, Cause::Requested);
    drain();
    EXPECT_EQ(cached("a"), Unmodified);
    std::chrono::milliseconds delay = 250ms;
    auto attempt = start;
    for (unsigned retries = 0; delay < 30s; ++retries) {
        const auto staleness = cache->getFreshness(at("a")).staleness;
        ASSERT_TRUE(staleness && staleness->nextRetry);
        EXPECT_EQ(staleness->since, since);
        EXPECT_EQ(staleness->reason, FileEvent);
        EXPECT_EQ(staleness->cause, Cause::Failed);
        EXPECT_THROW(std::rethrow_exception(staleness->failure), std::runtime_error);
        EXPECT_GE(*staleness->nextRetry, attempt + delay);
        EXPECT_EQ(cache->getStaleness()->nextRetry, staleness->nextRetry);
        EXPECT_EQ(told.size(), retries + 1);
        EXPECT_EQ(told.back()->nextRetry, staleness->nextRetry);
        EXPECT_EQ(refreshOf("b"), Freshness::Refresh::None);
        EXPECT_EQ(refreshOf("a/below"), Freshness::Refresh::ToBeRetried);
        copy->takeCalls();
        attempt = std::chrono::steady_clock::now();
        EXPECT_THAT(retry(), ElementsAre(Le(delay)));
        EXPECT_THAT(copy->takeCalls(), ElementsAre("files a"));
        delay = delay * 3 / 2;
    }
    EXPECT_LE(cache->getStaleness()->nextRetry, std::chrono::steady_clock::now() + 30s);
    inQuery = [] {};
    retry();
    EXPECT_EQ(cached("a"), Modified);
    EXPECT_FALSE(cache->getStaleness());
    EXPECT_FALSE(told.back());
    EXPECT_EQ(executors.endDelays().size(), 0U) << "nothing is left to be done";
}

// A success shows that the adapter works again: the rest is one more query.
TEST_F(HealingTest, RetriesAllAtOnceWhenAQuerySucceeds) {
    failAlways();
    for (const auto* names : {"a", "b", "c"}) {
        requestFor(FileEvent, {names});
        cache->refreshFolder(at("x"));
        drain();
    }
    retry();
    retry();
    EXPECT_LE(copy->takeCalls().size(), 10U);
    inQuery = [] {};
    refresh("y");
    const auto calls = copy->takeCalls();
    EXPECT_THAT(calls, UnorderedElementsAre("folder+ y", "folder+ x", SizeIs(11)));
    EXPECT_EQ(calls.front(), "folder+ y");
    EXPECT_FALSE(cache->getStaleness());
}

// One file makes every query fail that names it. The others are right soon, and it is alone.
TEST_F(HealingTest, FindsThePathThatFails) {
    std::vector<std::string> names;
    for (int i = 0; i < 1'000; ++i)
        names.push_back(std::to_string(i));
    for (const auto& name : names)
        set(name, Modified);
    failFor([](const auto& call) { return (call + " ").find(" 777 ") != std::string::npos; });
    requestFor(FileEvent, names);
    drain();
    int retries = 0;
    for (; retries < 15 && cache->getModifiedFiles().size() != 999; ++retries) {
        for (const auto delay : retry())
            EXPECT_LE(delay, 400ms);
    }
    EXPECT_EQ(cache->getModifiedFiles().size(), 999U);
    EXPECT_LT(copy->takeCalls().size(), 30U);
    EXPECT_EQ(refreshOf("777"), Freshness::Refresh::ToBeRetried);
    EXPECT_EQ(refreshOf("776"), Freshness::Refresh::None);
    requestFor(Client, {"1"});
    drain();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files 1"));
    inQuery = [] {};
    retry();
    EXPECT_FALSE(cache->getStaleness());
}

TEST_F(HealingTest, RetriesWhatWasSkippedOrInterrupted) {
    set("a", Modified);
    const auto stranger = cache->refreshCMStatuses({at("b")});
    requestFor(FileEvent, {"a"});
    stranger->cancel();
    drain();
    EXPECT_EQ(cached("a"), std::nullopt);
    EXPECT_EQ(told.back()->cause, Cause::Skipped);
    EXPECT_THAT(retry(), ElementsAre(Le(250ms)));
    EXPECT_EQ(cached("a"), Modified);
    EXPECT_FALSE(told.back());
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files a"));

    // Background work is interrupted, whoever holds its task; a required one goes on at once.
    set("a", Added);
    std::vector<QueryUrgency> urgencies;
    inQuery = [&] {
        const auto origin = QueryOrigin::current();
        urgencies.push_back(origin->urgency());
        if (origin->urgency() == QueryUrgency::Background && urgencies.size() < 3) {
            std::const_pointer_cast<QueryOrigin>(origin)->cancel();
            throw Cancelled("somebody waits");
        }
    };
    {
        const RefreshReasonScope scope(Dependency);
        const auto task = cache->refreshCMStatuses({at("a")});
        drain();
        task->wait();
    }
    EXPECT_EQ(told.back()->cause, Cause::Interrupted);
    EXPECT_EQ(told.back()->failure, nullptr);
    EXPECT_THAT(retry(), ElementsAre(Le(250ms)));
    EXPECT_EQ(cached("a"), Modified);
    EXPECT_THAT(retry(), ElementsAre(Le(375ms)));
    EXPECT_EQ(cached("a"), Added);
    {
        urgencies.clear();
        const RefreshReasonScope scope(FileEvent);
        const auto task = cache->requireFreshFile(at("a"));
        drain();
        task->wait();
    }
    EXPECT_THAT(urgencies, ElementsAre(QueryUrgency::Background, QueryUrgency::Requested));
    const auto& counts = cache->getStatistics();
    EXPECT_EQ(counts.of(Dependency).interrupted, 1U);
    EXPECT_EQ(counts.of(Retry).queries, 3U);
    EXPECT_EQ(counts.of(Retry).interrupted, 1U);
}

// A stranger's cancel, before or in the query, does not end what is required with an old state.
TEST_F(HealingTest, WhatIsRequiredEndsWithAnAnswerOrAnError) {
    const auto files = [&](const char* name) { return cache->refreshCMStatuses({at(name)}); };
    const auto folder = [&](const char* name) { return cache->refreshFolder(at(name)); };
    using Request = std::function<std::shared_ptr<CacheTask>(const char*)>;
    const std::pair<Request, Request> kinds[] = {
        {[&](auto) { return cache->requireFreshFile(at("x/a")); }, files},
        {[&](auto) { return cache->requireFreshFolder(at("x")); }, folder},
        {[&](auto) {
             const RefreshReasonScope scope(OwnOperation);
             return cache->refreshFolder(at("x"));
         },
         folder}};
    enum Way { Skipped, InQuery, OwnCancel, Fails, Stopped, StoppedInQuery, Undisturbed };
    for (const auto& [require, request] : kinds)
        for (const auto way :
             {Skipped, InQuery, OwnCancel, Fails, Stopped, StoppedInQuery, Undisturbed}) {
            SCOPED_TRACE(way);
            inQuery = [] {};
            cache = makeCache();
            executors.endDelays(); // of the one before
            set("x/a", Unmodified);
            refresh(".");
            set("x/a", Modified);
            queries.clear();
            const auto before = request("x/y"), fresh = require(""), after = request("x/z");
            const auto cancel = [&] {
                before->cancel();
                after->cancel();
            };
            if (way == Skipped)
                cancel();
            if (way == OwnCancel)
                fresh->cancel();
            if (way == Stopped)
                cache->stop();
            inQuery = [&, once = false]() mutable {
                if (way == InQuery && !std::exchange(once, true)) {
                    cancel();
                    throw Cancelled("cancelled");
                }
                if (way == Fails)
                    throw std::runtime_error("mine");
                if (way == StoppedInQuery && !std::exchange(once, true)) {
                    cancel();
                    cache->stop();
                    throw Cancelled("cancelled");
                }
            };
            drain();
            const bool answered = way == Skipped || way == InQuery || way == Undisturbed;
            if (way == Fails)
                EXPECT_THROW(fresh->wait(), std::runtime_error);
            else if (way == Stopped || way == StoppedInQuery)
                EXPECT_THROW(fresh->wait(), Cancelled);
            else
                fresh->wait();
            EXPECT_EQ(cached("x/a"), answered ? Modified : Unmodified);
            EXPECT_LE(queries.size(), 2U);
            if (way == Stopped) {
                EXPECT_THROW(require("")->wait(), Cancelled);
                before->wait();
                EXPECT_EQ(executors.endDelays().size(), 0U);
            }
        }
}

TEST_F(HealingTest, WhatIsRequiredWaitsForNoTurnOfTheWorkThatItJoins) {
    const auto turns = BackgroundTurns::of(getSourceControlExecutor());
    auto other = turns->addClient({[] {}, [](auto) {}});
    other->request(); // it keeps its turn
    const auto background = [&] {
        const RefreshReasonScope scope(FileEvent);
        cache->refreshFolder(at("x"));
    };
    background();
    drain();
    EXPECT_THAT(queries, IsEmpty());
    const auto task = cache->requireFreshFolder(at("x/y"));
    drain();
    ASSERT_THAT(queries, ElementsAre("folder+ x"));
    task->wait();

    // Nor, for longer than the time limit, for such work that runs.
    other.reset();
    executors.endDelays();
    const auto startAndRequest = [&](const RefreshReason reason) {
        inQuery = [&, reason, isFirst = true]() mutable {
            if (!std::exchange(isFirst, false))
                return;
            turns->queryStarted();
            requestFor(reason, {"a"});
            EXPECT_EQ(executors.endDelays().size(), reason == Client ? 1U : 0U);
        };
        background();
        drain();
    };
    startAndRequest(FileEvent);
    startAndRequest(Client);
    executors.endDelays();
    other = turns->addClient({[] {}, [](auto) {}});
    other->request();
    turns->queryStarted();
    EXPECT_THAT(executors.endDelays(), IsEmpty()) << "nobody waits any more";
}

// In requested work while a turn is granted, or before or after the query of its own turn.
TEST_F(HealingTest, AListenerThatBlocksHoldsUpNoOtherCache) {
    const auto other = makeCache();
    auto& othersStrand = executors.strand();
    const auto turns = BackgroundTurns::of(getSourceControlExecutor());
    enum Where { InRequested, BeforeQuery, AfterQuery };
    for (const auto where : {InRequested, BeforeQuery, AfterQuery}) {
        SCOPED_TRACE(where);
        cache = makeCache();
        bool blocks = true;
        const auto block = [&](const auto&...) {
            if (!std::exchange(blocks, false))
                return;
            if (where == InRequested)
                requestFor(FileEvent, {"a"});
            copy->takeCalls();
            {
                const RefreshReasonScope scope(FileEvent);
                other->refreshCMStatuses({at("b")});
            }
            EXPECT_FALSE(othersStrand.runOne()) << "one turn at a time";
            inQuery = [&, isFirst = true]() mutable {
                if (!std::exchange(isFirst, false))
                    return;
                turns->queryStarted();
                cache->refreshFolder(at("y"));
                test::clockAhead += 4s;
                executors.endDelays();
                EXPECT_FALSE(QueryOrigin::current()->isCancelled()) << "nobody waits for it";
                turns->queryEnded(0s);
            };
            test::clockAhead += 4s;
            executors.endDelays();
            EXPECT_TRUE(othersStrand.runOne());
            EXPECT_THAT(copy->takeCalls(), ElementsAre("files b"));
        };
        where == AfterQuery ? cache->connectCacheChanged(block) : cache->connectTasksStarted(block);
        set("a", Modified);
        if (where == InRequested)
            cache->refreshFolder(at("x"));
        else
            requestFor(FileEvent, {"a"});
        drain();
        EXPECT_EQ(cache->getStatistics().of(FileEvent).interrupted, where == BeforeQuery ? 1U : 0U);
        retry();
        EXPECT_EQ(cached("a"), Modified);
    }
    test::clockAhead = 0s;
}

TEST_F(HealingTest, RetriesBetweenRequestsThatNeverEnd) {
    failAlways();
    requestFor(FileEvent, {"a"});
    drain();
    copy->takeCalls();
    int requests = 0;
    inQuery = [&] {
        if (++requests == 1)
            executors.endDelays();
        if (requests < 9)
            cache->refreshFolder(at("x"));
        test::clockAhead += 1s;
    };
    refresh("x");
    test::clockAhead = 0s;
    const auto calls = copy->takeCalls();
    EXPECT_LT(std::ranges::find(calls, "files a") - calls.begin(), 5);
}

// An interruption of background work that comes late meets the requested query that follows.
TEST_F(HealingTest, InterruptsBackgroundWorkOnly) {
    const auto adapter = test::makeMemoryAdapter(copy);
    TransactionalFileCache<FileState> states;
    RunningQuery running([](auto) { return true; });
    for (const auto reason : {FileEvent, Client}) {
        RefreshRequest request;
        request.files = {at("a")};
        request.reason = reason;
        FileCacheUpdateJob job(std::move(request), {});
        running.begin(2);
        job.setRunningQuery(&running);
        inQuery = [&] {
            running.interrupt(1);
            EXPECT_FALSE(QueryOrigin::current()->isCancelled()) << "was for the turn before";
            running.interrupt(2);
            EXPECT_EQ(QueryOrigin::current()->isCancelled(), reason == FileEvent);
        };
        job.run(*adapter, *interactor, states);
    }
}

TEST_F(HealingTest, RetriesNothingAfterItsEnd) {
    for (const bool destroy : {false, true}) {
        cache = makeCache();
        inQuery = [] { throw 5; };
        requestFor(FileEvent, {"a"});
        drain();
        queries.clear();
        destroy ? cache.reset() : cache->stop();
        if (!destroy) {
            EXPECT_TRUE(cache->getStaleness() && !cache->getStaleness()->nextRetry);
        }
        executors.endDelays();
        executors.runStrands();
        EXPECT_THAT(queries, IsEmpty());
        EXPECT_TRUE(!destroy || cachedAdapter.expired());
    }
}

// While the root is gone nothing can have changed; who sees it return has it refreshed.
TEST_F(HealingTest, WaitsForTheRoot) {
    const test::TemporaryFolder folder;
    const auto root = folder.path() / "root";
    std::filesystem::create_directory(root);
    const auto there = std::make_shared<test::MemoryWorkingCopy>(Path::fromNative(root.native()));
    const auto file = there->root / u"a";
    cache = std::make_shared<JobCombiningCMStatusCache>(test::makeMemoryAdapter(there), interactor);
    follow();
    cache->refreshFolder(there->root);
    drain();
    std::filesystem::remove(root);
    there->inCall = [](const auto&...) { throw std::runtime_error("no such folder"); };
    cache->refreshCMStatuses({file});
    drain();
    ASSERT_TRUE(cache->getStaleness());
    EXPECT_EQ(cache->getStaleness()->nextRetry, std::nullopt);
    EXPECT_EQ(told.back()->nextRetry, std::nullopt);
    EXPECT_EQ(retry().size(), 0U);

    std::filesystem::create_directory(root);
    cache->refreshFolder(there->root / u"b"); // incomplete yet
    drain();
    EXPECT_THAT(retry(), ElementsAre(Le(250ms)));
    there->inCall = [](const auto&...) {};
    retry();
    EXPECT_FALSE(cache->getStaleness());

    // A root that cannot be reached for another reason may be there again at any time, unnoticed.
    std::filesystem::remove(root);
    std::filesystem::create_symlink(root, root);
    there->inCall = [](const auto&...) { throw std::runtime_error("too many links"); };
    cache->refreshCMStatuses({file});
    drain();
    there->inCall = [](const auto&...) {};
    EXPECT_THAT(retry(), ElementsAre(Le(250ms)));
    EXPECT_FALSE(cache->getStaleness());
}

TEST_F(HealingTest, HoldsEachPathOnceHoweverOftenItIsRequested) {
    // Behind a query that runs.
    std::vector<std::weak_ptr<CacheTask>> tasks;
    inQuery = [&] {
        if (!tasks.empty())
            return;
        for (int i = 0; i < 100'000; ++i)
            tasks.push_back(i % 4 < 2 ? cache->refreshCMStatuses({at(i % 2 ? "a" : "b")})
                                      : cache->refreshFolder(at(i % 2 ? "x" : "y")));
        const auto statistics = cache->getStatistics();
        EXPECT_LE(statistics.queuedRefreshes, 600U);
        EXPECT_LE(statistics.queuedPaths, 1'200U);
        const auto held = std::ranges::count_if(tasks, [](auto& each) { return !each.expired(); });
        EXPECT_LE(held, 2'000);
        EXPECT_EQ(refreshOf("a"), Freshness::Refresh::Waiting);
    };
    set("a", Modified);
    refresh("z");
    EXPECT_EQ(cached("a"), Modified);

    // As failed ones.
    failAlways();
    for (int i = 0; i < 1'000; ++i) {
        requestFor(FileEvent, {"a", "b"});
        drain();
    }
    EXPECT_EQ(cache->getStatistics().retryPaths, 2U);
    EXPECT_EQ(executors.endDelays().size(), 1U);
}

TEST_F(HealingTest, LetsCommonFoldersRepresentTooManyPaths) {
    bool isWaiting = true;
    inQuery = [&] {
        if (!std::exchange(isWaiting, false))
            return;
        for (int i = 0; i < 40'000; ++i)
            requestFor(FileEvent, {"x/" + std::to_string(i / 10'000) + "/" + std::to_string(i)});
        for (int i = 0; i < 3'000; ++i)
            cache->refreshFolder(at("y/" + std::to_string(i) + "/z"));
        EXPECT_LE(cache->getStatistics().queuedPaths, 25'000U);
        EXPECT_EQ(refreshOf("x/3/31415"), Freshness::Refresh::Waiting);
        EXPECT_EQ(refreshOf("y/577/z"), Freshness::Refresh::Waiting);
    };
    set("x/3/31415", Modified);
    set("y/577/z/f", Modified);
    refresh("z");
    EXPECT_EQ(cached("x/3/31415"), Modified);
    EXPECT_EQ(cached("y/577/z/f"), Modified);

    std::vector<std::string> names;
    for (int i = 0; i < 10'100; ++i)
        names.push_back("x/" + std::to_string(i % 50) + "/" + std::to_string(i));
    set("x/3/3", Added);
    failAlways();
    requestFor(FileEvent, names);
    drain();
    EXPECT_LE(cache->getStatistics().retryPaths, 16U);
    EXPECT_EQ(refreshOf("x/3/3"), Freshness::Refresh::ToBeRetried);
    inQuery = [] {};
    copy->takeCalls();
    retry();
    EXPECT_EQ(cached("x/3/3"), Added);
    EXPECT_LE(copy->takeCalls().size(), 16U);
}

TEST_F(HealingTest, EveryListenerHearsOfStalenessAndMayDestroyTheCache) {
    int calls = 0;
    cache->connectStalenessChanged([&](const auto&) {
        ++calls;
        throw 5;
    });
    cache->connectStalenessChanged([&](const auto&) {
        ++calls;
        cache.reset();
    });
    failAlways();
    cache->refreshFolder(at("a"));
    drain();
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(cache, nullptr);
    EXPECT_TRUE(cachedAdapter.expired());
}

TEST_F(HealingTest, CountsByReason) {
    requestFor(FileEvent, {"a"});
    requestFor(FileEvent, {"b"});
    drain();
    requestFor(ExternalChange, {"a\n"});
    requestFor(OwnOperation, {"b"});
    cache->refreshCMStatuses({at("c")})->cancel();
    inQuery = [&] {
        const auto running = cache->getStatistics().running;
        ASSERT_TRUE(running);
        EXPECT_EQ(running->urgency,
                  running->reason == Retry ? QueryUrgency::Background : QueryUrgency::Requested);
        throw std::runtime_error("my\nwords");
    };
    drain(); // skipped
    cache->refreshFolder(at("x"));
    EXPECT_EQ(cache->getStatistics().queuedPaths, 1U);
    drain();
    retry(); // too early for the probe
    retry();
    const auto statistics = cache->getStatistics();
    const auto row = [&](RefreshReason reason) {
        const auto& counts = statistics.of(reason);
        return std::array{counts.requests, counts.queries, counts.failed, counts.skipped};
    };
    EXPECT_EQ(row(FileEvent), (std::array<std::uint64_t, 4>{2, 1, 0, 0}));
    EXPECT_EQ(row(ExternalChange), (std::array<std::uint64_t, 4>{1, 0, 0, 0}));
    EXPECT_EQ(row(OwnOperation), (std::array<std::uint64_t, 4>{1, 0, 0, 0}));
    EXPECT_EQ(row(Client), (std::array<std::uint64_t, 4>{2, 1, 1, 1}));
    EXPECT_EQ(row(Retry), (std::array<std::uint64_t, 4>{0, 2, 2, 0}));
    EXPECT_EQ(statistics.retryPaths, 3U);
    EXPECT_EQ(statistics.last.size(), 5U);
    EXPECT_LE(statistics.of(FileEvent).longest, statistics.of(FileEvent).total);
    const auto text = describe(statistics);
    for (const auto* part :
         {"file event: 2 requests, 1 queries (0 failed", "to be retried: 3 paths, next at",
          "file /r/copy/a and 1 more (file event) succeeded after",
          "folder /r/copy/x (client) "
          "failed after",
          "ms: my?words\n", "file /r/copy/a? and 2 more (client) skipped"})
        EXPECT_THAT(text, HasSubstr(part));
    inQuery = [] {};
    for (int i = 0; i < 100; ++i)
        refresh("x");
    EXPECT_EQ(cache->getStatistics().last.size(), 50U);
}

} // namespace
} // namespace quendo
