#include "tests/cache/CacheFixture.h"
#include "tests/cache/CheckedContents.h"
#include "tests/support/Allocations.h"

namespace quendo {
namespace {

using Tasks = std::vector<std::shared_ptr<CacheTask>>;
using Refresh = Freshness::Refresh;

/// What wait() threw.
std::exception_ptr failureOf(const std::shared_ptr<CacheTask>& task) {
    return test::within(test::onThread([task] {
        try {
            task->wait();
            return std::exception_ptr();
        } catch (...) {
            return std::current_exception();
        }
    }));
}

class FaultTest : public CacheFixture {
protected:
    struct Notices {
        int started = 0, finished = 0, changed = 0;
        bool operator==(const Notices&) const = default;
    };

    FaultTest() { renew(); }

    /// A new cache with the contents that all cases start from, and then a change on the disk.
    void renew() {
        copy->states.clear();
        for (const auto* name : {"one/a", "two/b", "c"})
            set(name);
        cache = makeCache();
        cache->setFolderStatusFlag(true);
        cache->connectTasksStarted([this](const auto&) { ++notices.started; });
        cache->connectTasksFinished([this](const auto&) { ++notices.finished; });
        cache->connectCacheChanged([this] {
            ++notices.changed;
            const auto left = std::exchange(test::allocationsUntilFailure, test::never);
            seen.push_back(contents());
            test::allocationsUntilFailure = left;
        });
        notices = {};
        refreshUndisturbed();
        set("one/a", LocalStatus::Modified);
        copy->erase(at("two/b"));
        set("new/x", LocalStatus::NotUnderSourceControl);
        seen = {contents()};
        notices = {};
        queries.clear();
    }
    test::Contents contents() { return test::checkedContents(*cache, copy->root); }
    /// The cache must be as good as new.
    void refreshUndisturbed() {
        inQuery = [] {};
        refresh(".");
        EXPECT_EQ(contents(), copy->states);
        EXPECT_EQ(cache->getFreshness(a).refresh, Refresh::None);
        EXPECT_EQ(cache->getFreshness(a).failure, nullptr);
        EXPECT_EQ(notices.started, notices.finished);
    }

    const Path a = at("one/a");
    Notices notices;
    std::vector<test::Contents> seen; ///< at the start and in each notice of a change
};

TEST_F(FaultTest, WhatIsThrownReachesEveryWaiterAndItsPathsAreToBeRetried) {
    enum Place { Query, Started, Changes, Folders, Changed, Finished };
    for (const auto& thrown :
         {std::make_exception_ptr(std::domain_error("mine")), std::make_exception_ptr(5),
          std::make_exception_ptr(std::bad_alloc())})
        for (const auto place : {Query, Started, Changes, Folders, Changed, Finished}) {
            SCOPED_TRACE(place);
            const bool fails = place<Finished, merges = place> Started;
            const auto thrower = [&](const auto&...) { std::rethrow_exception(thrown); };
            renew();
            const auto before = cache->getFreshness(a).answeredAt;
            const boost::signals2::scoped_connection connection =
                place == Started    ? cache->connectTasksStarted(thrower)
                : place == Changes  ? cache->connectChanges(thrower)
                : place == Folders  ? cache->connectFoldersChanged(thrower)
                : place == Changed  ? cache->connectCacheChanged(thrower)
                : place == Finished ? cache->connectTasksFinished(thrower)
                                    : boost::signals2::connection();
            int later = 0; // a listener behind the one that throws
            const auto count = [&](const auto&...) { ++later; };
            boost::signals2::scoped_connection counting[] = {
                cache->connectTasksStarted(count), cache->connectChanges(count),
                cache->connectFoldersChanged(count), cache->connectCacheChanged(count),
                cache->connectTasksFinished(count)};
            if (place == Query)
                inQuery = thrower;
            const Tasks tasks{cache->refreshFolder(a.parentPath()), cache->refreshFolder(at("."))};
            drain();
            for (const auto& task : tasks)
                EXPECT_EQ(failureOf(task), fails ? thrown : nullptr);
            EXPECT_EQ(notices, (Notices{1, 1, merges ? 1 : 0}));
            EXPECT_EQ(later, merges ? 5 : 2);
            EXPECT_EQ(contents(), merges ? copy->states : seen.front());
            const auto freshness = cache->getFreshness(a);
            EXPECT_EQ(freshness.refresh, merges ? Refresh::None : Refresh::ToBeRetried);
            EXPECT_EQ(freshness.failure, merges ? nullptr : thrown);
            EXPECT_EQ(freshness.answeredAt != before, merges);
            connection.disconnect();
            for (auto& each : counting)
                each.disconnect();
            refreshUndisturbed();
        }
}

TEST_F(FaultTest, StoppedOrDestroyedAnywhereLeavesNobodyWaiting) {
    enum Place { Queued, Started, Querying, Changes, Folders, Changed, Finished };
    for (const auto place : {Queued, Started, Querying, Changes, Folders, Changed, Finished})
        for (const bool destroy : {false, true}) {
            SCOPED_TRACE(std::to_string(place) + (destroy ? " destroyed" : " stopped"));
            renew();
            const auto end = [&](Place here) {
                return [&, here](const auto&...) {
                    if (place == here && cache != nullptr)
                        destroy ? cache.reset() : cache->stop();
                };
            };
            Tasks tasks;
            cache->connectTasksStarted(end(Started));
            cache->connectChanges(end(Changes));
            cache->connectFoldersChanged(end(Folders));
            cache->connectCacheChanged(end(Changed));
            cache->connectTasksFinished(end(Finished));
            inQuery = [&] {
                end(Querying)();
                if (place == Querying)
                    tasks[1]->wait(); // is not waiting for this query
            };
            tasks = {cache->refreshFolder(at(".")), cache->refreshCMStatuses({a}),
                     cache->refreshFolder(at("."))};
            end(Queued)();
            drain();
            for (const auto& task : tasks)
                EXPECT_EQ(failureOf(task), nullptr);
            EXPECT_EQ(queries.size(), place == Queued ? 0U : 1U);
            if (destroy) {
                EXPECT_TRUE(cachedAdapter.expired());
                EXPECT_EQ(notices.changed, place > Folders ? 1 : 0)
                    << "those who listen are left alone";
                continue;
            }
            EXPECT_EQ(contents(), place == Queued ? seen.front() : copy->states);
            EXPECT_EQ(failureOf(cache->refreshFolder(at("."))), nullptr);
            EXPECT_FALSE(executors.strand().runOne()) << "a stopped cache takes no work";
        }
}

TEST_F(FaultTest, AnExecutorThatRefusesLeavesNothingStuck) {
    executors.strand().refuse(true);
    EXPECT_THROW(cache->refreshFolder(at(".")), std::system_error);
    EXPECT_THROW(cache->refreshCMStatuses({a}), std::system_error);
    EXPECT_THROW(cache->loadFolder(at(".")), std::system_error);
    EXPECT_THROW(cache->refreshAll(), std::system_error);
    EXPECT_THROW(cache->requireFreshFile(a), std::system_error);
    EXPECT_THROW(cache->requireFreshFolder(at(".")), std::system_error);
    EXPECT_EQ(cache->getFreshness(a).refresh, Refresh::None);
    executors.strand().refuse(false);
    const auto task = cache->refreshFolder(at("."));
    executors.strand().refuse(true);
    const auto joined = cache->refreshFolder(at(".")); // the drain is on its way already
    executors.strand().refuse(false);
    drain();
    EXPECT_EQ(failureOf(joined), nullptr);
    EXPECT_EQ(queries.size(), 1U);
    refreshUndisturbed();
}

TEST_F(FaultTest, MemoryThatEndsAnywhereSpoilsNothing) {
    bool failed = false;
    const std::function<void(Tasks&)> scenarios[] = {
        [&](Tasks& tasks) { tasks.push_back(cache->refreshFolder(at("."))); },
        [&](Tasks& tasks) {
            tasks.push_back(cache->refreshCMStatuses({a, at("two/b"), at("c"), at("new/x")}));
        },
        [&](Tasks& tasks) {
            inQuery = [&] {
                if (!std::exchange(failed, true))
                    throw std::runtime_error("mine");
            };
            tasks.push_back(cache->refreshCMStatuses({a, at("two/b")}));
            tasks.push_back(cache->refreshCMStatuses({at("new/x"), a}));
            drain();
            tasks.push_back(cache->refreshCMStatuses({at("c")}));
        }};
    for (const auto& scenario : scenarios) {
        std::vector<test::Contents> allowed; // those of an undisturbed run
        bool ended = true;
        std::size_t n = test::never;
        for (; ended; ++n) {
            SCOPED_TRACE(n);
            renew();
            failed = false;
            Tasks tasks;
            tasks.reserve(3);
            test::allocationsUntilFailure = n;
            try {
                scenario(tasks);
                drain();
            } catch (const std::bad_alloc&) {
            }
            ended = std::exchange(test::allocationsUntilFailure, test::never) == test::never;
            drain();
            for (const auto& task : tasks)
                failureOf(task);
            EXPECT_NE(cache->getFreshness(a).refresh, Refresh::Waiting);
            EXPECT_NE(cache->getFreshness(a).refresh, Refresh::Running);
            seen.push_back(contents());
            if (n == test::never)
                allowed = seen;
            for (const auto& each : seen)
                EXPECT_TRUE(std::ranges::count(allowed, each)) << "a mix";
            refreshUndisturbed();
        }
        EXPECT_GT(n, 30U);
    }
}

} // namespace
} // namespace quendo
