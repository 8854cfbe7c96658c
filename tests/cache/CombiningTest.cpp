#include "quendo/adapter/QueryOrigin.h"
#include "quendo/cache/FileCacheUpdateJob.h"
#include "quendo/cache/FolderCacheUpdateJob.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/cache/CacheFixture.h"
#include "tests/support/Allocations.h"

namespace quendo {
namespace {

class CombiningTest : public CacheFixture {
protected:
    /// "f:NAME[,NAME…]" refreshes files, "d:NAME" a folder; "+" and "-" set the flag.
    std::vector<std::shared_ptr<CacheTask>> submit(const std::string& requests) {
        std::vector<std::shared_ptr<CacheTask>> tasks;
        std::istringstream words(requests);
        for (std::string word; words >> word;) {
            if (word == "+" || word == "-") {
                cache->setFolderStatusFlag(word == "+");
            } else if (word.starts_with("d:")) {
                tasks.push_back(cache->refreshFolder(at(word.substr(2))));
            } else {
                std::vector<Path> files;
                std::istringstream names(word.substr(2));
                for (std::string name; std::getline(names, name, ',');)
                    files.push_back(at(name));
                tasks.push_back(cache->refreshCMStatuses(files));
            }
        }
        return tasks;
    }
    /// The queries that these become, all of which have succeeded.
    std::vector<std::string> queriesOf(const std::string& requests) {
        const auto tasks = submit(requests);
        drain();
        for (const auto& task : tasks)
            task->wait();
        return copy->takeCalls();
    }
};

// What is queued together, and the queries that it becomes.
TEST_F(CombiningTest, JoinsWhatFollowsDirectlyAndFits) {
    const std::pair<const char*, std::vector<std::string>> rows[] = {
        {"f:a f:b", {"files a b"}},
        {"f:a,b f:b,a f:c,a", {"files a b c"}},
        {"d:a d:a", {"folder a"}},
        {"d:a d:a/x", {"folder a"}},
        {"d:a/x d:a", {"folder a"}},
        {"d:a/x d:a d:b", {"folder a", "folder b"}},
        {"d:a d:b", {"folder a", "folder b"}},
        {"d:a d:a-b", {"folder a", "folder a-b"}},
        {"d:a/x d:a/y d:a", {"folder a/x", "folder a"}},
        {"f:a d:a f:b", {"files a", "folder a", "files b"}},
        {"d:a f:b d:a/x d:a", {"folder a", "files b", "folder a"}},
        {"+ d:a/x - d:a", {"folder+ a"}},
        {"- d:a + d:a/x", {"folder a"}},
        {"f:.fake,a,b/.lock/c d:.fake/x", {"files a"}},
    };
    for (const auto& [requests, expected] : rows) {
        EXPECT_EQ(queriesOf(requests), expected) << requests;
    }
}

// Behind a running job; one posted task serves them all, and what they cost grows as they do.
TEST_F(CombiningTest, TenThousandRequestsBehindARunningJobAreOneQuery) {
    std::vector<std::size_t> allocations;
    for (const int count : {1'000, 10'000}) {
        std::vector<std::shared_ptr<CacheTask>> tasks;
        inQuery = [&] {
            if (!tasks.empty())
                return;
            for (int i = 0; i < count; ++i)
                tasks.push_back(cache->refreshCMStatuses({at(std::to_string(i))}));
            for (int i = 0; i < 10; ++i)
                tasks.push_back(cache->refreshCMStatuses({at("0")}));
        };
        submit("d:a");
        EXPECT_EQ(executors.strand().size(), 1U);
        const auto before = test::allocationCount;
        executors.strand().runOne();
        allocations.push_back(test::allocationCount - before);
        ASSERT_EQ(queries.size(), 2U);
        EXPECT_EQ(std::ranges::count(copy->takeCalls()[1], ' '), count);
        EXPECT_EQ(executors.strand().size(), 0U);
        for (const auto& task : tasks)
            task->wait();
    }
    EXPECT_LT(allocations[1], 12 * allocations[0]);
}

// Joining in place, as the updater does, and joining by making new jobs give the same.
TEST_F(CombiningTest, JoinsInPlaceAsByMakingNewJobs) {
    std::vector<std::shared_ptr<CacheBarrier>> barriers;
    const auto make = [&](const std::string& what) -> std::unique_ptr<CacheUpdateJob> {
        RefreshRequest request;
        request.barrier = barriers.emplace_back(std::make_shared<CacheBarrier>());
        if (what.starts_with("f:")) {
            request.files = {at(what.substr(2))};
            return std::make_unique<FileCacheUpdateJob>(std::move(request), CacheBooks());
        }
        request.folder = at(what.substr(3));
        request.folderStatusFlag = what.starts_with("d+");
        return std::make_unique<FolderCacheUpdateJob>(std::move(request), CacheBooks());
    };
    const auto told = [&](CacheUpdateJob& job) {
        const auto adapter = test::makeMemoryAdapter(copy);
        TransactionalFileCache<FileState> files;
        job.start();
        job.run(*adapter, *interactor, files);
        return copy->takeCalls();
    };
    for (const auto& names : std::vector<std::vector<std::string>>{
             {"f:a", "f:b", "f:a", "f:c"}, {"d+:a/x", "d-:a", "d-:a/y"}, {"d-:a", "d+:a/x"}}) {
        std::unique_ptr<CacheUpdateJob> made = make(names.front()), inPlace = make(names.front());
        for (std::size_t i = 1; i < names.size(); ++i) {
            const auto next = make(names[i]);
            EXPECT_TRUE(made->canCombineWith(*next));
            made = made->combineWith(*next);
            inPlace->absorb(*make(names[i]));
        }
        EXPECT_EQ(told(*made), told(*inPlace)) << names.front();
    }
    for (const auto& barrier : barriers)
        EXPECT_THROW(barrier->complete(), std::future_error) << "was not settled";
    EXPECT_FALSE(make("f:a")->canCombineWith(*make("d+:a")));
    EXPECT_FALSE(make("d+:a")->canCombineWith(*make("f:a")));
}

// One cancelled request skips what was combined with it, for all; the others' files are not
// forgotten.
TEST_F(CombiningTest, SkipsWhatIsCancelledAndAsksForTheOthersLater) {
    int signalsGiven = 0;
    cache->connectTasksStarted([&](const auto&) { ++signalsGiven; });
    cache->connectTasksFinished([&](const auto&) { ++signalsGiven; });
    cache->connectCacheChanged([&] { ++signalsGiven; });
    auto tasks = submit("f:a,b f:c f:d d:x d:x/y");
    tasks[1]->cancel();
    tasks[3]->cancel();
    drain();
    for (const auto& task : tasks)
        task->wait();
    EXPECT_THAT(copy->takeCalls(), IsEmpty());
    EXPECT_EQ(signalsGiven, 0);
    EXPECT_EQ(cache->getFreshness(at("a")).refresh, Freshness::Refresh::ToBeRetried);
    EXPECT_EQ(cache->getFreshness(at("c")).refresh, Freshness::Refresh::None);
    EXPECT_EQ(cache->getFreshness(at("x/y/z")).refresh, Freshness::Refresh::ToBeRetried);
    EXPECT_EQ(cache->getFreshness(at("x/z")).refresh, Freshness::Refresh::None);

    set("d", LocalStatus::Added);
    EXPECT_THAT(queriesOf("f:e"), ElementsAre("files e", "files a b d", "folder x/y"));
    EXPECT_EQ(cached("d"), LocalStatus::Added);
    EXPECT_EQ(cache->getFreshness(at("x/y/z")).refresh, Freshness::Refresh::None);
}

// The same for a query that failed. What an answer covers is not retried any more, and what fails
// again stays to be retried and fails no other refresh.
TEST_F(CombiningTest, AsksAgainForWhatFailed) {
    std::vector<std::string> failing{"files a b", "folder x", "folder y"};
    inQuery = [&] {
        if (std::ranges::find(failing, queries.back()) != failing.end())
            throw std::out_of_range(queries.back());
    };
    for (int times = 0; times < 20; ++times) {
        const auto failed = submit("f:a f:b d:x d:y");
        drain();
        for (const auto& task : failed)
            EXPECT_THROW(task->wait(), std::out_of_range);
    }
    copy->takeCalls();
    EXPECT_THAT(queriesOf("f:c d:z"),
                ElementsAre("files c", "folder z", "files a b", "folder x", "folder y"));
    const auto freshness = cache->getFreshness(at("x"));
    EXPECT_EQ(freshness.refresh, Freshness::Refresh::ToBeRetried);
    EXPECT_THROW(std::rethrow_exception(freshness.failure), std::out_of_range);
    failing.clear();
    EXPECT_THAT(queriesOf("d:. f:c"), ElementsAre("folder .", "files c")) << "covers all of it";
    EXPECT_EQ(cache->getFreshness(at("a")).failure, nullptr);
    EXPECT_EQ(cache->getFreshness(at("x")).refresh, Freshness::Refresh::None);
}

// Cancelling reaches the adapter while its query runs, not before and not later, and says whom it
// is meant for.
TEST_F(CombiningTest, StopsTheQueryThatRunsAndNoOther) {
    std::vector<std::string> heard;
    std::shared_ptr<const QueryOrigin> working;
    interactor->getTerminator().connect([&] {
        heard.push_back(!QueryOrigin::concerns(working)  ? "other"
                        : QueryOrigin::concerns(nullptr) ? "host"
                                                         : "mine");
    });
    auto tasks = submit("f:a f:b f:g");
    inQuery = [&] {
        working = QueryOrigin::current();
        tasks[1]->cancel();
        EXPECT_TRUE(working->isCancelled());
        std::exchange(working, nullptr);
        tasks[0]->cancel(); // a check-in of the same folder would hear this
        interactor->getTerminationTrigger().trigger();
        throw exception::OperationCancelledError("cancelled");
    };
    drain();
    for (const auto& task : tasks)
        EXPECT_THROW(task->wait(), exception::OperationCancelledError);
    EXPECT_THAT(heard, ElementsAre("mine", "other", "host"));

    // The next job is out of its reach, and asks for what was not cancelled itself.
    auto next = submit("f:c");
    inQuery = [&] { tasks[0]->cancel(); };
    drain();
    next[0]->wait();
    EXPECT_EQ(heard.size(), 3U);
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files a b g", "files c", "files g"));

    // Between the test for cancelled tasks and the query: the query is not begun.
    inQuery = [] {};
    const auto cancelling = cache->connectTasksStarted([&](const auto&) { next[0]->cancel(); });
    next = submit("f:d f:h");
    drain();
    for (const auto& task : next)
        EXPECT_THROW(task->wait(), exception::OperationCancelledError);
    EXPECT_THAT(copy->takeCalls(), IsEmpty());
    cancelling.disconnect();

    // When the answer is in the cache it is too late; what was skipped is a job of its own.
    const auto late = cache->connectCacheChanged([&] { next[0]->cancel(); });
    set("e");
    next = submit("f:e");
    drain();
    next[0]->wait();
    EXPECT_EQ(cached("e"), LocalStatus::Unmodified);
    late.disconnect();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files e", "files h"));
}

// A cancel between the first test and the handlers is seen by the second.
TEST_F(CombiningTest, SeesACancelThatComesBeforeTheHandlers) {
    const auto tasks = submit("f:a");
    interactor->asked = [&] { tasks[0]->cancel(); };
    drain();
    tasks[0]->wait();
    EXPECT_THAT(copy->takeCalls(), IsEmpty());
}

// A cancel that comes at the end of its job is over before the next one's query begins, for the
// sake of adapters that stop at any signal.
TEST_F(CombiningTest, LetsNoCancelReachIntoTheNextJob) {
    std::promise<void> signalGiven, release;
    interactor->getTerminator().connect([&, once = false]() mutable {
        if (std::exchange(once, true))
            return;
        signalGiven.set_value();
        test::within(release.get_future());
        queries.push_back("signal over");
    });
    const auto tasks = submit("f:a d:b");
    std::future<void> cancelling, strand;
    inQuery = [&] {
        if (queries.size() == 1) {
            cancelling = test::onThread([&] { tasks[0]->cancel(); });
            test::within(signalGiven.get_future());
        }
    };
    strand = test::onThread([&] { drain(); });
    tasks[0]->wait(); // settled, though the signal is still being given
    release.set_value();
    test::within(std::move(strand));
    test::within(std::move(cancelling));
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files a", "signal over", "folder b"));
}

} // namespace
} // namespace quendo
