#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/cache/CheckedContents.h"
#include "tests/support/Allocations.h"
#include "tests/support/Deadline.h"
#include "tests/support/HookedAdapter.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedExecutors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

namespace quendo {
namespace {

using test::Query;
using Cancelled = exception::OperationCancelledError;
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

bool isCancelled(const std::exception_ptr& failure) {
    try {
        if (failure != nullptr)
            std::rethrow_exception(failure);
    } catch (const Cancelled&) {
        return true;
    } catch (...) {
    }
    return false;
}

/// The rules of QueryOrigin, as an adapter keeps them during one call.
class Stopper {
public:
    Stopper(CMApplicationInteractor& interactor, std::function<void()> stop)
        : m_connection(interactor.getTerminator().connect([stop, origin = QueryOrigin::current()] {
              if (QueryOrigin::concerns(origin))
                  stop();
          })) {
        const auto origin = QueryOrigin::current();
        if (origin != nullptr && origin->isCancelled())
            stop();
    }

private:
    const boost::signals2::scoped_connection m_connection;
};

class FaultTest : public testing::Test {
protected:
    struct Notices {
        int started = 0, finished = 0, changed = 0;
        bool operator==(const Notices&) const = default;
    };

    FaultTest() { renew(); }

    /// A new cache with the contents that all cases start from, and then a change on the disk.
    void renew() {
        hook = nullptr;
        notices = {};
        copy->states.clear();
        for (const auto& file : {a, b, c})
            copy->set(file, LocalStatus::Unmodified);
        cache = std::make_shared<JobCombiningCMStatusCache>(
            std::make_unique<test::HookedAdapter>(test::makeMemoryAdapter(copy),
                                                  [this, held = token](const Query& query) {
                                                      queries.push_back(query);
                                                      if (hook)
                                                          hook(query);
                                                  }),
            interactor);
        cache->setFolderStatusFlag(true);
        cache->connectTasksStarted([this](const auto&) { ++notices.started; });
        cache->connectTasksFinished([this](const auto&) { ++notices.finished; });
        cache->connectCacheChanged([this] {
            ++notices.changed;
            const auto left = std::exchange(test::allocationsUntilFailure, test::never);
            seen.push_back(contents());
            test::allocationsUntilFailure = left;
        });
        refreshUndisturbed();
        copy->set(a, LocalStatus::Modified);
        copy->erase(b);
        copy->set(added, LocalStatus::NotUnderSourceControl);
        seen = {contents()};
        notices = {};
        queries.clear();
    }
    void drain() {
        while (executors.strand().runOne()) {
        }
    }
    test::Contents contents() { return test::checkedContents(*cache, root); }
    /// The cache must be as good as new.
    void refreshUndisturbed() {
        hook = nullptr;
        const auto task = cache->refreshFolder(root);
        drain();
        EXPECT_EQ(failureOf(task), nullptr);
        EXPECT_EQ(contents(), copy->states);
        EXPECT_EQ(cache->getFreshness(root).refresh, Refresh::None);
        EXPECT_EQ(notices.started, notices.finished);
    }

    const test::SteppedExecutors executors;
    const Path root{u"/copy"};
    const Path a = root / u"one/a", b = root / u"two/b", c = root / u"c", added = root / u"new/x";
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(root);
    const std::shared_ptr<CMApplicationInteractor> interactor =
        std::make_shared<CMApplicationInteractor>();
    std::shared_ptr<int> token = std::make_shared<int>(0);
    std::function<void(const Query&)> hook;
    std::vector<Query> queries;
    Notices notices;
    std::vector<test::Contents> seen; ///< at the start and in each notice of a change
    std::shared_ptr<JobCombiningCMStatusCache> cache;
};

TEST_F(FaultTest, WhatTheAdapterThrowsReachesEveryWaiterAndItsPathsAreOwed) {
    for (const auto& thrown :
         {std::make_exception_ptr(std::runtime_error("mine")), std::make_exception_ptr(5),
          std::make_exception_ptr(std::bad_alloc())})
        for (const bool ofFolder : {false, true}) {
            renew();
            hook = [&](const Query&) { std::rethrow_exception(thrown); };
            const auto first =
                ofFolder ? cache->refreshFolder(a.parentPath()) : cache->refreshCMStatuses({a});
            const auto second =
                ofFolder ? cache->refreshFolder(root) : cache->refreshCMStatuses({b, a});
            drain();
            EXPECT_EQ(failureOf(first), thrown);
            EXPECT_EQ(failureOf(second), thrown);
            EXPECT_EQ(queries.size(), 1U);
            EXPECT_EQ(contents(), seen.front());
            EXPECT_EQ(notices, (Notices{1, 1, 0}));
            EXPECT_EQ(cache->getFreshness(a).refresh, Refresh::Owed);
            EXPECT_EQ(cache->getFreshness(a).failure, thrown);
            hook = nullptr;
            const auto next = ofFolder ? cache->refreshFolder(added.parentPath())
                                       : cache->refreshCMStatuses({added});
            drain();
            EXPECT_EQ(failureOf(next), nullptr);
            EXPECT_EQ(contents(), copy->states);
            EXPECT_EQ(cache->getFreshness(a).refresh, Refresh::None);
        }
}

TEST_F(FaultTest, WhatFailsAgainAndAgainIsOwedOnce) {
    const auto bad = a.parentPath();
    hook = [&](const Query& query) {
        if (query.paths.front() == bad)
            throw std::runtime_error("mine");
    };
    for (int i = 0; i < 20; ++i) {
        cache->refreshFolder(bad);
        drain();
    }
    queries.clear();
    cache->refreshFolder(b.parentPath());
    drain();
    EXPECT_EQ(queries.size(), 2U);
    EXPECT_EQ(cache->getFreshness(a).refresh, Refresh::Owed);
    refreshUndisturbed();
}

TEST_F(FaultTest, ListenersThatThrow) {
    const auto thrown = std::make_exception_ptr(std::domain_error("mine"));
    const auto thrower = [&](const auto&...) { std::rethrow_exception(thrown); };
    const auto connect = [&](int kind) {
        return kind == 0   ? cache->connectTasksStarted(thrower)
               : kind == 1 ? cache->connectChanges(thrower)
               : kind == 2 ? cache->connectFoldersChanged(thrower)
               : kind == 3 ? cache->connectCacheChanged(thrower)
                           : cache->connectTasksFinished(thrower);
    };
    for (int kind = 0; kind < 5; ++kind) {
        SCOPED_TRACE(kind);
        const bool fails = kind<4, merges = kind> 0;
        renew();
        {
            const boost::signals2::scoped_connection connection = connect(kind);
            const Tasks tasks{cache->refreshFolder(root), cache->refreshFolder(root)};
            drain();
            for (const auto& task : tasks)
                EXPECT_EQ(failureOf(task), fails ? thrown : nullptr);
        }
        EXPECT_EQ(notices, (Notices{1, 1, merges ? 1 : 0}));
        EXPECT_EQ(contents(), merges ? copy->states : seen.front());
        EXPECT_EQ(cache->getFreshness(a).refresh, merges ? Refresh::None : Refresh::Owed);
        refreshUndisturbed();
    }
}

TEST_F(FaultTest, CancellingAtEveryStep) {
    enum Step { Queued, Started, Querying, Changed, Ended };
    for (const auto step : {Queued, Started, Querying, Changed, Ended})
        for (const bool onStrand : {false, true}) {
            SCOPED_TRACE(std::to_string(step) + (onStrand ? " on the strand" : ""));
            renew();
            Tasks tasks;
            const auto cancel = [&] {
                if (onStrand)
                    tasks[1]->cancel();
                else
                    test::within(test::onThread([&] { tasks[1]->cancel(); }));
            };
            int signals = 0;
            const boost::signals2::scoped_connection signal =
                interactor->getTerminator().connect([&] { ++signals; });
            const auto at = [&](Step here) {
                return [&, here](const auto&...) {
                    if (step == here && !tasks.empty())
                        cancel();
                };
            };
            cache->connectTasksStarted(at(Started));
            cache->connectCacheChanged(at(Changed));
            hook = [&](const Query&) {
                bool stopped = false;
                const Stopper stopper(*interactor, [&] { stopped = true; });
                at(Querying)();
                if (stopped)
                    throw Cancelled("stopped");
            };
            // Before and after the job there is no listener: a task on the strand does it.
            if (step == Queued && onStrand)
                executors.strand().post(cancel);
            for (const auto& file : {a, b, added})
                tasks.push_back(cache->refreshCMStatuses({file}));
            if (step == Queued && !onStrand)
                cancel();
            drain();
            if (step == Ended)
                onStrand ? executors.strand().post(cancel) : cancel();
            drain();
            for (const auto& task : tasks)
                EXPECT_EQ(isCancelled(failureOf(task)), step == Started || step == Querying);
            EXPECT_EQ(contents(), step >= Changed ? copy->states : seen.front());
            EXPECT_EQ(signals, step == Queued || step == Ended ? 0 : 1);
            EXPECT_EQ(queries.size(), step >= Querying ? 1U : 0U);
            EXPECT_EQ(notices.started, step == Queued ? 0 : 1);
            // What was not cancelled itself is asked for yet, and nothing else.
            tasks.clear();
            const auto next = cache->refreshCMStatuses({c});
            drain();
            EXPECT_EQ(failureOf(next), nullptr);
            auto expected = copy->states;
            if (step < Changed)
                expected.insert(*seen.front().find(b));
            EXPECT_EQ(contents(), expected);
            refreshUndisturbed();
        }
}

TEST_F(FaultTest, StoppedOrDestroyedAnywhereLeavesNobodyWaiting) {
    enum Place { Queued, Started, Querying, Changes, Folders, Changed, Finished };
    for (const auto place : {Queued, Started, Querying, Changes, Folders, Changed, Finished})
        for (const bool destroy : {false, true}) {
            SCOPED_TRACE(std::to_string(place) + (destroy ? " destroyed" : " stopped"));
            token = std::make_shared<int>(0);
            renew();
            const auto end = [&](Place here) {
                return [&, here](const auto&...) {
                    if (place == here && cache != nullptr)
                        destroy ? cache.reset() : cache->stop();
                };
            };
            cache->connectTasksStarted(end(Started));
            cache->connectChanges(end(Changes));
            cache->connectFoldersChanged(end(Folders));
            cache->connectCacheChanged(end(Changed));
            cache->connectTasksFinished(end(Finished));
            hook = end(Querying);
            Tasks tasks{cache->refreshFolder(root), cache->refreshCMStatuses({a}),
                        cache->refreshFolder(root)};
            const std::weak_ptr<int> adapterLives = std::exchange(token, nullptr);
            end(Queued)();
            drain();
            for (const auto& task : tasks)
                EXPECT_EQ(failureOf(task), nullptr);
            EXPECT_EQ(queries.size(), place == Queued ? 0U : 1U);
            if (destroy) {
                EXPECT_TRUE(adapterLives.expired());
                continue;
            }
            EXPECT_EQ(contents(), place == Queued ? seen.front() : copy->states);
            EXPECT_EQ(failureOf(cache->refreshFolder(root)), nullptr);
            EXPECT_FALSE(executors.strand().runOne()) << "a stopped cache takes no work";
        }
}

TEST_F(FaultTest, AnExecutorThatRefusesLeavesNothingStuck) {
    executors.strand().refuse(true);
    EXPECT_THROW(cache->refreshFolder(root), std::system_error);
    EXPECT_THROW(cache->refreshCMStatuses({a}), std::system_error);
    EXPECT_THROW(cache->loadFolder(root), std::system_error);
    EXPECT_THROW(cache->refreshAll(), std::system_error);
    EXPECT_THROW(cache->requireFreshFile(a), std::system_error);
    EXPECT_THROW(cache->requireFreshFolder(root), std::system_error);
    EXPECT_EQ(cache->getFreshness(a).refresh, Refresh::None);
    executors.strand().refuse(false);
    const auto task = cache->refreshFolder(root);
    executors.strand().refuse(true);
    const auto joined = cache->refreshFolder(root); // the drain is on its way already
    executors.strand().refuse(false);
    drain();
    EXPECT_EQ(failureOf(joined), nullptr);
    EXPECT_EQ(queries.size(), 1U);
    refreshUndisturbed();
}

TEST_F(FaultTest, MemoryThatEndsAnywhereSpoilsNothing) {
    bool failed = false;
    const std::function<void(Tasks&)> scenarios[] = {
        [&](Tasks& tasks) { tasks.push_back(cache->refreshFolder(root)); },
        [&](Tasks& tasks) {
            tasks.push_back(cache->refreshCMStatuses({a, b, c, added}));
        },
        [&](Tasks& tasks) {
            hook = [&](const Query&) {
                if (!std::exchange(failed, true))
                    throw std::runtime_error("mine");
            };
            tasks.push_back(cache->refreshCMStatuses({a, b}));
            tasks.push_back(cache->refreshCMStatuses({added, a}));
            drain();
            tasks.push_back(cache->refreshCMStatuses({c}));
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
        RecordProperty("allocations", std::to_string(n));
    }
}

/// Checks in until it is let go or stopped.
class SlowCheckin : public CMAdapterDecorator {
public:
    SlowCheckin(std::unique_ptr<CMAdapter> adapter, CMApplicationInteractor& interactor)
        : CMAdapterDecorator(std::move(adapter)), m_interactor(interactor) {}

    using CMAdapterDecorator::checkin;
    using CMAdapterDecorator::getStatus;

    void checkin(const Path&, const UString&) const override {
        const Stopper stopper(m_interactor, [this] { set(stopped); });
        set(entered);
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_until(lock, test::byDeadline(), [&] { return go || stopped; }));
        if (stopped)
            throw Cancelled("the check-in");
    }
    std::map<Path, FileState> getStatus(const Path& path, bool flag) const override {
        bool cancelled = false;
        const Stopper stopper(m_interactor, [&] { cancelled = true; });
        if (cancelled)
            throw Cancelled("the refresh");
        ++scans;
        return CMAdapterDecorator::getStatus(path, flag);
    }
    void set(bool& what) const {
        const std::lock_guard lock(mutex);
        what = true;
        changed.notify_all();
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    mutable bool entered = false, go = false, stopped = false;
    mutable int scans = 0;

private:
    CMApplicationInteractor& m_interactor;
};

TEST(CheckinTest, IsStoppedByTheHostAndNotWithARefreshBehindIt) {
    const Path root(u"/copy");
    const auto interactor = std::make_shared<CMApplicationInteractor>();
    for (const bool byHost : {false, true}) {
        auto owned = std::make_unique<SlowCheckin>(
            test::makeMemoryAdapter(std::make_shared<test::MemoryWorkingCopy>(root)), *interactor);
        auto& slow = *owned;
        std::promise<void> asking;
        const auto adapter = std::make_shared<test::HookedAdapter>(
            std::make_unique<SingleThreadedCMAdapter>(getSourceControlExecutor(), std::move(owned)),
            [&](const Query&) { asking.set_value(); });
        const auto cache = std::make_shared<JobCombiningCMStatusCache>(adapter, interactor);
        auto checkin = test::onThread([&] { adapter->checkin(root / u"file", u""); });
        {
            std::unique_lock lock(slow.mutex);
            ASSERT_TRUE(
                slow.changed.wait_until(lock, test::byDeadline(), [&] { return slow.entered; }));
        }
        const auto refresh = cache->refreshFolder(root);
        test::within(asking.get_future());
        if (byHost) {
            interactor->getTerminationTrigger().trigger();
            EXPECT_THROW(test::within(std::move(checkin)), Cancelled);
            EXPECT_EQ(failureOf(refresh), nullptr) << "it had not begun";
        } else {
            refresh->cancel();
            slow.set(slow.go);
            EXPECT_NO_THROW(test::within(std::move(checkin)));
            EXPECT_TRUE(isCancelled(failureOf(refresh)));
        }
        EXPECT_EQ(slow.scans, byHost ? 1 : 0);
    }
}

} // namespace
} // namespace quendo
