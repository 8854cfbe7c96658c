#include "quendo/cache/CacheBarrier.h"
#include "tests/cache/CacheFixture.h"

namespace quendo {
namespace {

using enum LocalStatus;

class CacheTest : public CacheFixture {};

TEST_F(CacheTest, HoldsWhatTheAdapterAnsweredAndNothingElse) {
    for (unsigned status = 0; status <= 9; ++status)
        set("s" + std::to_string(status), static_cast<LocalStatus>(status));
    set(".");
    set("a", Added);
    set("a/b");
    set("a/new", NotUnderSourceControl);
    set("a-b", Modified);
    EXPECT_EQ(cached("a"), std::nullopt);
    EXPECT_THAT(cache->getModifiedFiles(), IsEmpty());
    refresh(".");
    EXPECT_EQ(cached("a"), Added);
    EXPECT_EQ(cached("a/new"), std::nullopt) << "the flag is false at the start";
    cache->setFolderStatusFlag(true);
    refresh(".");
    EXPECT_EQ(cached("a/new"), NotUnderSourceControl);
    EXPECT_THAT(namesOf(cache->getModifiedFiles()),
                ElementsAre("a", "a-b", "s3", "s4", "s5", "s6", "s7"));
    EXPECT_THAT(namesOf(cache->getFilesWithStatus(Modified)), ElementsAre("a-b", "s3"));
    EXPECT_THAT(namesOf(cache->getFilesWithStatus(Unknown)), ElementsAre("s9"));
    EXPECT_THAT(namesOf(cache->getCachedFiles()),
                ElementsAre(".", "a", "a-b", "a/b", "a/new", "s0", "s1", "s2", "s3", "s4", "s5",
                            "s6", "s7", "s8", "s9"));

    const std::pair<const char*, std::optional<LocalStatus>> effective[] = {
        {"s2/x/y", Ignored}, {"s8/x", External}, {"a/none", {}}, {"s3", Modified}, {"../x", {}}};
    for (const auto& [name, state] : effective) {
        const auto told = getEffectiveStatus(*cache, at(name));
        EXPECT_EQ(told ? std::optional(told->getState()) : std::nullopt, state) << name;
    }

    // A file that is answered no more leaves, and so does a folder with all that was below it.
    copy->erase(at("s1"));
    copy->erase(at("a"));
    copy->erase(at("a/b"));
    copy->erase(at("a/new"));
    const auto task = cache->refreshCMStatuses({at("s1"), at("s2")});
    refresh("a");
    task->wait();
    EXPECT_EQ(cached("s1"), std::nullopt);
    EXPECT_EQ(cached("s2"), Ignored);
    EXPECT_EQ(cached("a"), std::nullopt) << "the folder's own entry";
    EXPECT_EQ(cached("a/b"), std::nullopt);
    EXPECT_EQ(cached("a-b"), Modified) << "is not below a";
    EXPECT_EQ(executors.strand().name(), "CMStatusCache_copy");
}

TEST_F(CacheTest, ListsTheRootFirstOnlyWhenItIsAlone) {
    set(".");
    refresh(".");
    EXPECT_THAT(cache->getCachedFiles(), ElementsAre(copy->root));
    for (int i = 0; i < 100; ++i) {
        set(std::to_string(i));
        refresh(".");
        ASSERT_NE(cache->getCachedFiles().front(), copy->root) << i;
    }
}

TEST_F(CacheTest, LeavesForbiddenNamesAlone) {
    const std::pair<Path, bool> rows[] = {
        {at(".fake"), true},
        {at("a/.fake/b"), true},
        {at(".lock"), true},
        {at("a/.fakes"), false},
        {at("a"), false},
        {at("."), false},
        {Path(u"/r/.fake"), true},
        {Path(u"/r/other/.fake"), true},
        {at("a/../.fake"), true},
        {at("x/.fake/../a"), false},
        {Path(u"/r/copy//a"), false},
        {Path(u""), false},
    };
    const test::LogCapture log;
    for (const auto& [path, ignored] : rows)
        EXPECT_EQ(cache->isFileIgnored(path), ignored) << path;
    EXPECT_EQ(log.count(" file.string()=/r/copy/.fake"), 1U);
    EXPECT_EQ(log.records()[0].severity, 2);
    EXPECT_EQ(log.records()[0].source, "cache/JobCombiningCMStatusCache");

    cache->refreshFolder(at(".fake"))->wait();
    cache->loadFolder(at(".fake"))->cancel();
    cache->refreshCMStatuses({at(".lock"), at("b/.lock")})->wait();
    cache->refreshCMStatuses({})->wait();
    EXPECT_EQ(executors.strand().size(), 0U);
}

TEST_F(CacheTest, LoadsAFolderOnce) {
    cache->loadFolder(at("a/b"));
    cache->loadFolder(at("a/b/c"))->wait();
    cache->loadFolder(at("a/b"))->wait();
    cache->loadFolder(at("a/bc"));
    drain();
    cache->loadFolder(at("a"));
    drain();
    cache->loadFolder(at("a/z"))->wait();
    EXPECT_THAT(queries, ElementsAre("folder a/b", "folder a/bc", "folder a"));
}

TEST_F(CacheTest, TellsEachStepInOrderOnTheStrand) {
    std::vector<std::string> told;
    const auto note = [&](const std::string& what) {
        EXPECT_TRUE(executors.strand().isRunningInThisThread());
        told.push_back(what);
    };
    CMStatusCache::Tasks started;
    cache->connectTasksStarted([&](const CMStatusCache::Tasks& tasks) {
        note("started " + std::to_string(tasks.size()));
        started = tasks;
    });
    cache->connectTasksFinished([&](CMStatusCache::Tasks tasks) {
        note("finished");
        EXPECT_EQ(tasks, started);
        EXPECT_THROW(tasks[0]->wait(), ExecutorDeadlockError);
    });
    cache->connectCacheChanged([&] { note("changed"); });
    cache->connectFoldersChanged([&](const FolderSetChange& change) {
        note("folders +" + std::to_string(change.appeared.size()) + " -" +
             std::to_string(change.vanished.size()));
        EXPECT_EQ(change.version, cache->getFolderSetVersion());
    });
    cache->connectChanges([&](const StatusChanges& changes) {
        std::vector<std::string> rows;
        const auto show = [](const auto& state) {
            return state ? std::string(toString(state->getState())) : "-";
        };
        for (const auto& change : changes.changes)
            rows.push_back(" " + nameOf(change.path) + ":" + show(change.before) + ">" +
                           show(change.after));
        std::ranges::sort(rows);
        for (const auto& row : rows)
            note("change" + row);
        EXPECT_EQ(changes.version, cache->listStatuses(copy->root).version);
    });
    inQuery = [&] { note("query"); };

    set("a/b");
    set("a/c");
    const auto tasks = {cache->refreshCMStatuses({at("a/b")}), cache->refreshCMStatuses({at("a")})};
    drain();
    EXPECT_TRUE(std::ranges::equal(tasks, started));
    EXPECT_THAT(std::exchange(told, {}),
                ElementsAre("started 2", "query", "change a/b:->Unmodified",
                            "change a/c:->Unmodified", "folders +1 -0", "changed", "finished"));
    set("a/b", Modified);
    copy->erase(at("a/c"));
    refresh("a");
    EXPECT_THAT(std::exchange(told, {}),
                ElementsAre("started 1", "query", "change a/b:Unmodified>Modified",
                            "change a/c:Unmodified>-", "changed", "finished"));
    refresh("a"); // the notice comes whether something changed or not
    EXPECT_THAT(std::exchange(told, {}), ElementsAre("started 1", "query", "changed", "finished"));
    copy->erase(at("a/b"));
    refresh("a");
    EXPECT_THAT(told, ElementsAre("started 1", "query", "change a/b:Modified>-", "folders +0 -1",
                                  "changed", "finished"));
}

TEST_F(CacheTest, TellsHowFreshAStateIs) {
    using enum Freshness::Refresh;
    const auto state = [&](const std::string& name) { return cache->getFreshness(at(name)); };
    EXPECT_EQ(state("a").answeredAt, std::nullopt);
    const auto before = std::chrono::steady_clock::now();
    cache->refreshFolder(at("a"));
    EXPECT_EQ(state("a/b/c").refresh, Waiting);
    EXPECT_EQ(state("ab").refresh, None);
    inQuery = [&] { EXPECT_EQ(state("a/b/c").refresh, Running); };
    drain();
    EXPECT_EQ(state("a/b/c").refresh, None);
    const auto first = state("a/b/c").answeredAt;
    EXPECT_GE(first, before);
    EXPECT_EQ(state("ab").answeredAt, std::nullopt);

    inQuery = [] {};
    cache->refreshCMStatuses({at("a/b")});
    drain();
    EXPECT_GT(state("a/b").answeredAt, first);
    EXPECT_EQ(state("a/b/c").answeredAt, first);

    refresh(".");
    EXPECT_GT(state("a/b").answeredAt, first);

    // From now on: a query that runs already does not do, one that waits does.
    std::shared_ptr<CacheTask> fresh, shared;
    queries.clear();
    inQuery = [&] {
        if (fresh == nullptr) {
            fresh = cache->requireFreshFolder(at("a"));
            cache->refreshCMStatuses({at("x")});
            shared = cache->requireFreshFolder(at("a/b"));
            cache->setFolderStatusFlag(true);
            cache->requireFreshFolder(at("a"));
            cache->requireFreshFile(at("a/b"));
        }
    };
    refresh(".");
    EXPECT_THAT(queries, ElementsAre("folder .", "folder a", "files x", "folder+ a", "files a/b"));
    fresh->wait();
    shared->wait();
}

TEST_F(CacheTest, RefusesToWaitWhereItWouldWaitForItself) {
    const auto task = cache->refreshFolder(at("a"));
    getSourceControlExecutor()->post([&] { EXPECT_THROW(task->wait(), ExecutorDeadlockError); });
    boost::signals2::scoped_connection connection = cache->connectCacheChanged([&] {
        connection.disconnect();
        EXPECT_THROW(cache->refreshAll(), ExecutorDeadlockError);
        EXPECT_THROW(task->wait(), ExecutorDeadlockError);
    });
    drain();
    getSourceControlExecutor()->post([&] { task->wait(); }); // it has ended
}

TEST(CacheBarrier, SettlesOnce) {
    CacheBarrier succeeded, failed;
    int cancelled = 0;
    const auto connection = succeeded.connectCancel([&] { ++cancelled; });
    EXPECT_TRUE(succeeded.isActive());
    succeeded.complete();
    succeeded.wait();
    succeeded.wait();
    EXPECT_THROW(succeeded.complete(), std::future_error);
    succeeded.cancel();
    EXPECT_FALSE(succeeded.isActive());
    EXPECT_EQ(cancelled, 1);
    connection.disconnect();
    succeeded.cancel();
    EXPECT_EQ(cancelled, 1);
    EXPECT_THROW(succeeded.fail(nullptr), std::future_error);

    failed.fail(std::make_exception_ptr(std::out_of_range("first")));
    failed.fail(std::make_exception_ptr(std::domain_error("second")));
    failed.complete();
    EXPECT_THROW(failed.wait(), std::out_of_range);
    EXPECT_THROW(failed.wait(), std::out_of_range);
}

// Nobody else is connected, so the merge in which a follower connects began without recording.
TEST(FollowingTest, MissesNothingInTheMiddleOfAMerge) {
    const auto copy = std::make_shared<test::MemoryWorkingCopy>(Path(u"/copy"));
    for (int i = 0; i < 500; ++i)
        copy->set(copy->root.child(std::to_string(i)), LocalStatus::Unmodified);
    JobCombiningCMStatusCache cache(test::makeMemoryAdapter(copy),
                                    std::make_shared<CMApplicationInteractor>());
    std::atomic<bool> isOver = false;
    auto writer = test::onThread([&] {
        for (bool flips = false; !isOver; flips = !flips) {
            copy->set(copy->root / u"0", flips ? LocalStatus::Modified : LocalStatus::Unmodified);
            cache.refreshAll();
        }
    });
    for (int round = 0; round < 100; ++round) {
        std::mutex mutex;
        std::condition_variable came;
        std::vector<std::uint64_t> versions;
        const boost::signals2::scoped_connection connection =
            cache.connectChanges([&](const StatusChanges& changed) {
                const std::lock_guard lock(mutex);
                versions.push_back(changed.version);
                came.notify_all();
            });
        const auto listed = cache.listStatuses(copy->root).version;
        std::unique_lock lock(mutex);
        ASSERT_TRUE(came.wait_until(lock, test::byDeadline(),
                                    [&] { return !versions.empty() && versions.back() > listed; }));
        std::erase_if(versions, [&](auto version) { return version <= listed; });
        EXPECT_EQ(versions.front(), listed + 1);
        lock.unlock();
        connection.disconnect();
        cache.refreshAll(); // a slot may still be running
    }
    isOver = true;
    test::within(std::move(writer));
}

} // namespace
} // namespace quendo
