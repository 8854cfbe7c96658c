#include "quendo/adapter/BackgroundTurns.h"
#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/StateDependencies.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/cache/VFSFileChangeCacheUpdater.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/support/Allocations.h"
#include "tests/support/FakeFolderWatcher.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedDetection.h"

#include <boost/signals2/signal.hpp>

#include <malloc.h>

namespace quendo {
namespace {

using Kind = platform::FolderEvent::Kind;

/// A cache of somebody else's, without further interfaces; it notes what is asked of it.
struct PlainCache : CMStatusCache {
    explicit PlainCache(Path folder) : root(std::move(folder)) {}

    const Path root;
    std::vector<Path> files;
    std::vector<std::string> asked; ///< paths from the root
    boost::signals2::signal<void()> changed;

    std::shared_ptr<CacheTask> note(const std::string& what) {
        asked.push_back(what);
        return nullptr;
    }
    boost::signals2::connection connectCacheChanged(const ChangedSlot& slot) override {
        return changed.connect(slot);
    }
    boost::signals2::connection connectTasksStarted(const TasksSlot&) override { return {}; }
    boost::signals2::connection connectTasksFinished(const TasksSlot&) override { return {}; }
    std::shared_ptr<CacheTask> refreshFolder(const Path& folder) override {
        return note("folder " + folder.lexicallyRelative(root).toUtf8());
    }
    std::shared_ptr<CacheTask> loadFolder(const Path&) override { return note("load"); }
    std::shared_ptr<CacheTask> refreshCMStatuses(const std::vector<Path>& paths) override {
        std::string what = "files";
        for (const auto& path : paths)
            what += " " + path.lexicallyRelative(root).toUtf8();
        return note(what);
    }
    void refreshAll() override { note("all"); }
    void setFolderStatusFlag(bool) override {}
    bool getFolderStatusFlag() const override { return true; }
    std::optional<FileState> getCachedStatus(const Path&) const override { return {}; }
    std::vector<Path> getModifiedFiles() const override { return {}; }
    std::vector<Path> getFilesWithStatus(LocalStatus) const override { return {}; }
    std::vector<Path> getCachedFiles() const override { return files; }
    void stop() override {}
};

struct Installation : platform::InstallationService {
    std::optional<Path> folder;
    std::optional<Path> getRootFolder() const override { return folder; }
};

/// By events that the test gives; on the strand when the test says so.
class UpdaterTest : public testing::Test {
protected:
    Path at(const std::string& name) const { return name == "." ? root : root.child(name); }
    void start() { updater.emplace(cache, *adapter); }
    /// On a cache that is asked for the root then.
    void startReal() {
        real->setFolderStatusFlag(true);
        updater.emplace(real, *adapter);
        real->refreshFolder(root);
        detection.runStrands();
        copy->takeCalls();
    }
    std::vector<std::string> askedAfter(Kind kind, const std::string& name) {
        watcher->tell(kind, at(name));
        detection.runStrands();
        return std::exchange(cache->asked, {});
    }
    std::vector<std::string> watched() const {
        std::vector<std::string> folders;
        for (const auto& each : watcher->watched())
            folders.push_back(each.lexicallyRelative(root).toUtf8());
        return folders;
    }
    void hold(const std::vector<std::string>& names) {
        cache->files.clear();
        for (const auto& name : names)
            cache->files.push_back(at(name));
        cache->changed();
    }

    const test::TemporaryFolder folder;
    const Path root = folder.quendoPath();
    const std::shared_ptr<test::FakeFolderWatcher> watcher =
        std::make_shared<test::FakeFolderWatcher>();
    const std::shared_ptr<Installation> installation = std::make_shared<Installation>();
    test::SteppedDetection detection{watcher, installation};
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(root);
    const std::shared_ptr<CMAdapter> adapter = test::makeMemoryAdapter(copy);
    const std::shared_ptr<CMStatusCache> real =
        createJobCombiningCache(adapter, std::make_shared<CMApplicationInteractor>());
    std::shared_ptr<PlainCache> cache = std::make_shared<PlainCache>(root);
    std::optional<VFSFileChangeCacheUpdater> updater;
};

TEST_F(UpdaterTest, WatchesTheFoldersOfCachedFilesAndTheRoot) {
    start();
    EXPECT_EQ(detection.strand().name(), "CMFileSystemResponse");
    EXPECT_THAT(watched(), ElementsAre("."));
    hold({"a/1", "a/2", "b/c/3", "."});
    EXPECT_THAT(watched(), ElementsAre(".", "a", "b/c"));
    hold({"b/c/3"});
    EXPECT_THAT(watched(), ElementsAre(".", "b/c"));
    hold({".", "a/1"}); // the parent of the first is not looked at
    EXPECT_THAT(watched(), ElementsAre("..", ".", "a"));
    watcher->refused = at("no");
    hold({"no/1", "yes/1"});
    EXPECT_THAT(watched(), ElementsAre(".", "yes"));
    EXPECT_EQ(updater->rootRefusal(), nullptr);
    updater->stop();
    hold({"a/1"});
    EXPECT_THAT(watched(), IsEmpty());
}

TEST_F(UpdaterTest, AsksForWhatChangedWhileItIsNotDisabled) {
    start();
    EXPECT_THAT(askedAfter(Kind::Changed, "x"), ElementsAre("files x"));
    EXPECT_THAT(askedAfter(Kind::Vanished, "x"), ElementsAre("files x"));
    EXPECT_THAT(askedAfter(Kind::ContentsUnknown, "."), ElementsAre("folder ."));
    detection.strand().refuse(true);
    EXPECT_THAT(askedAfter(Kind::Changed, "x"), IsEmpty());
    detection.endWindows();
    EXPECT_TRUE(updater->waitsForThreadSince() && updater->outdatedSince(at("x")));
    EXPECT_FALSE(updater->outdatedSince(at("y")));
    detection.strand().refuse(false);
    detection.endWindows(); // with no further event
    EXPECT_THAT(std::exchange(cache->asked, {}), ElementsAre("files x"));
    EXPECT_FALSE(updater->waitsForThreadSince() || updater->outdatedSince(at("x")));
    // For want of memory the root stands for what came.
    for (const auto* name : {"x", "y"})
        watcher->tell(Kind::Changed, at(name));
    bool throws = false;
    test::allocationsUntilFailure = test::always;
    try {
        detection.strand().runOne();
    } catch (const std::bad_alloc&) {
        throws = true;
    }
    test::allocationsUntilFailure = test::never;
    EXPECT_FALSE(throws);
    EXPECT_THAT(askedAfter(Kind::Changed, "z"), testing::Contains("folder ."));

    auto first = updater->disable(), second = updater->disable();
    EXPECT_THAT(askedAfter(Kind::Changed, "x"), IsEmpty());
    first.release(); // one is enough
    EXPECT_THAT(askedAfter(Kind::Changed, "x"), ElementsAre("files x"));
    // Told before, answered after: dropped too.
    watcher->tell(Kind::Changed, at("x"));
    const auto third = updater->disable();
    EXPECT_THAT(askedAfter(Kind::Changed, "y"), IsEmpty());
    watcher->tell(Kind::Changed, at("x"));
    updater.reset();
    EXPECT_THAT(askedAfter(Kind::Changed, "x"), IsEmpty());
}

TEST_F(UpdaterTest, HoldsOneEntryForEachPathWhileAQueryWaits) {
    for (const auto* name : {"a", "b"})
        copy->set(at(name), LocalStatus::Unmodified);
    startReal();
    real->refreshCMStatuses({at("c")}); // waits for its strand
    const auto bytesAfterEvents = [&](int count) {
        for (int i = 0; i < count; ++i) {
            watcher->tell(Kind::Changed, at(i % 2 == 0 ? "a" : "b"));
            if (i % 16 == 0)
                detection.strand().runOne();
        }
        EXPECT_EQ(detection.strand().size(), 1U);
        return ::mallinfo2().uordblks;
    };
    const auto before = bytesAfterEvents(100);
    EXPECT_LT(bytesAfterEvents(50'000), before + 20'000);
    EXPECT_TRUE(updater->outdatedSince(at("a")) && updater->outdatedSince(at("b")));
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files c a b"));
    EXPECT_FALSE(updater->outdatedSince(at("a")) || updater->outdatedSince(at("b")));
    // Folders stand for too many paths.
    real->refreshCMStatuses({at("c")});
    for (int i = 0; i < 9000; ++i)
        watcher->tell(Kind::Appeared, at(std::to_string(i)));
    EXPECT_THAT(updater->describe(), testing::ContainsRegex("pending paths: [0-9]{1,4} arrived"));
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files c", "folder+ ."));
    // No folder but the root stands for those that gain metadata of their own.
    for (int i = 0; i < 5000; ++i)
        copy->set(at(std::to_string(i) + "/f"), LocalStatus::Unmodified);
    real->refreshFolder(root);
    detection.runStrands();
    copy->takeCalls();
    for (int i = 0; i < 5000; ++i)
        watcher->tell(Kind::Appeared, at(std::to_string(i) + "/.fake"));
    EXPECT_THAT(updater->describe(), testing::ContainsRegex("pending paths: [0-9]{1,3} arrived"));
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("folder+ ."));
}

TEST_F(UpdaterTest, EventsJoinTheRefreshThatWaitsForItsTurn) {
    copy->set(at("g/1"), LocalStatus::Unmodified);
    startReal();
    const auto turns = BackgroundTurns::of(getSourceControlExecutor());
    const auto other = turns->addClient({[] {}, {}});
    other->request();
    const auto tell = [&](Kind kind, std::initializer_list<const char*> names) {
        for (const auto* name : names) {
            watcher->tell(kind, at(name));
            detection.runStrands();
        }
    };
    for (int i = 0; i < 100; ++i)
        tell(Kind::Changed, {"c", "a", "b"});
    tell(Kind::Vanished, {"a"});
    EXPECT_THAT(copy->takeCalls(), IsEmpty());
    const auto& freshness = dynamic_cast<const CMStatusCacheFreshness&>(*real);
    // What waits about a folder, or about rules in it, concerns all that lies there.
    for (const auto& [kind, name] :
         {std::pair(Kind::Vanished, "d"), {Kind::Changed, "g/.metadata"}}) {
        const auto inside = at(name).parentPath() == root ? at(name) : at(name).parentPath();
        EXPECT_EQ(freshness.getFreshness(inside / u"x/y").refresh, Freshness::Refresh::None);
        tell(kind, {name});
        EXPECT_EQ(freshness.getFreshness(inside / u"x/y").refresh, Freshness::Refresh::Waiting);
    }
    EXPECT_EQ(freshness.getFreshness(at("e/x")).refresh, Freshness::Refresh::None);
    // What comes while it runs waits for its end.
    copy->inCall = [&, isFirst = true](const auto&...) mutable {
        if (!std::exchange(isFirst, false))
            return;
        for (int i = 0; i < 100; ++i) {
            watcher->tell(Kind::Changed, at("b"));
            watcher->tell(Kind::Appeared, at("a"));
        }
        while (detection.strand().runOne()) {
        }
    };
    other->end();
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files c a b d", "folder+ g", "files a b"));
    EXPECT_FALSE(freshness.getStaleness());
}

TEST_F(UpdaterTest, QueriesNothingWhereContentDoesNotMatter) {
    const auto set = [&](const char* name, LocalStatus status) {
        copy->states.insert_or_assign(at(name), FileState(status, *name == 'd'));
    };
    set("i", LocalStatus::Ignored);
    set("u", LocalStatus::NotUnderSourceControl);
    set("di", LocalStatus::Ignored);
    set("t", LocalStatus::Unmodified);
    startReal();
    const auto callsAfter = [&](Kind kind, const char* name) {
        watcher->tell(kind, at(name));
        detection.runStrands();
        return copy->takeCalls();
    };
    for (const auto* name : {"i", "u", "di"}) {
        EXPECT_THAT(callsAfter(Kind::Changed, name), IsEmpty()) << name;
        EXPECT_THAT(callsAfter(Kind::Appeared, name), testing::SizeIs(testing::Ge(1U))) << name;
        EXPECT_THAT(callsAfter(Kind::Vanished, name), testing::SizeIs(testing::Ge(1U))) << name;
    }
    EXPECT_THAT(callsAfter(Kind::Changed, "t"), ElementsAre("files t"));
    // A query that began before the change may find that the content matters.
    copy->inCall = [&, isFirst = true](const auto&...) mutable {
        if (!std::exchange(isFirst, false))
            return;
        set("u", LocalStatus::Added);
        watcher->tell(Kind::Changed, at("u"));
        while (detection.strand().runOne()) {
        }
    };
    real->refreshFolder(root);
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("folder+ .", "files u"));
}

struct Dependencies : StateDependencies {
    std::vector<StateDependency> list;
    std::vector<StateDependency> getStateDependencies(const std::vector<Path>&,
                                                      const std::vector<Path>&) const override {
        return list;
    }
};

// They are watched when a query has ended, while the retry of the first one is under way.
TEST_F(UpdaterTest, SeesWhatAnswersDependOnChangeDuringTheFirst) {
    const test::TemporaryFolder outside;
    const auto dependencies = std::make_shared<Dependencies>();
    const auto all = [](const Path&) { return true; };
    dependencies->list = {{outside.quendoPath(), all, "all", {root}, {}}};
    real->setFolderStatusFlag(true);
    updater.emplace(real, *adapter);
    updater->follow(dependencies);
    const auto run = [this](const std::string& strand) {
        while (detection.strand(strand).runOne()) {
        }
    };
    const auto ofCache = "CMStatusCache_" + root.fileName().toUtf8();
    copy->inCall = [&, call = 0](const auto&...) mutable {
        if (++call == 1)
            throw exception::OperationFailedError("mine");
        if (call == 2) {
            test::writeFile(outside.path() / "config", "");
            run("CMDependencies");
        }
    };
    real->refreshFolder(root);
    run(ofCache);
    EXPECT_THAT(copy->takeCalls(), ElementsAre("folder+ ."));
    detection.endDelays();
    run(ofCache);
    EXPECT_THAT(copy->takeCalls(), ElementsAre("folder+ ."));
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("folder+ ."));
}

TEST_F(UpdaterTest, FollowsNestedWorkingCopies) {
    const auto dependencies = std::make_shared<Dependencies>();
    fs::create_directories(folder.path() / "sub/x");
    copy->states.insert_or_assign(at("sub"), FileState(LocalStatus::Unmodified, true));
    startReal();
    updater->follow(dependencies);
    // In a submodule without working copy a file is not queried: it would come and go.
    for (const auto* name : {"sub/n", "sub/x/n"}) {
        watcher->tell(Kind::Appeared, at(name));
        detection.runStrands();
        EXPECT_THAT(copy->takeCalls(), ElementsAre("folder+ sub")) << name;
    }
    // What cannot be watched is refreshed from time to time, as long as it is listed.
    dependencies->list = {{{}, {}, "unwatched", {root}, std::chrono::minutes(5)}};
    real->refreshFolder(root);
    detection.runStrands();
    for (int time = 0; time < 3; ++time) {
        copy->takeCalls();
        EXPECT_EQ(detection.endWindows(), 1U);
        EXPECT_THAT(copy->takeCalls(), ElementsAre("folder+ ."));
    }
    dependencies->list.clear();
    real->refreshFolder(root);
    detection.runStrands();
    detection.endWindows();
    EXPECT_EQ(detection.endWindows(), 0U);
}

TEST_F(UpdaterTest, ManyFoldersAreOneQuery) {
    const char* folders[] = {"m/a", "m/b", "m/c", "m/d", "m/e"};
    for (const auto* name : folders)
        copy->set(at(name) / u"file", LocalStatus::Unmodified);
    startReal();
    const auto askedFor = [&](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            watcher->tell(Kind::ContentsUnknown, at(folders[i]));
        detection.runStrands();
        return copy->takeCalls();
    };
    EXPECT_THAT(askedFor(2), ElementsAre("folder+ m/a", "folder+ m/b"));
    EXPECT_THAT(askedFor(5), ElementsAre("folder+ m"));
    watcher->tell(Kind::ContentsUnknown, at("m/a"));
    detection.strand().runOne();
    const auto guard = updater->disable(); // when it is collected already
    EXPECT_THAT(askedFor(0), IsEmpty());
}

TEST_F(UpdaterTest, LooksBelowTheRootWhenTheFirstQueryHasEnded) {
    fs::create_directories(folder.path() / "a/empty");
    fs::create_directory(folder.path() / "no");
    watcher->refused = at("no"); // which keeps it from nothing else
    updater.emplace(real, *adapter);
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre("."));
    real->refreshFolder(root); // has nothing in it, so the set of folders stays as it is
    detection.runStrands();
    watcher->tell(Kind::Appeared, at("a"));
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".")) << "untracked, and the flag is not set";
    real->setFolderStatusFlag(true);
    real->refreshFolder(root);
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "a", "a/empty"));
    real->setFolderStatusFlag(false);
    real->refreshFolder(root);
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre("."));
    real->setFolderStatusFlag(true);
    updater.emplace(real, *adapter); // on a cache that was asked
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "a", "a/empty"));
    watcher->refused = Path();
    real->refreshFolder(root);
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "a", "a/empty", "no"));
}

TEST_F(UpdaterTest, RetriesRefusedFoldersWhenTheSetOfFoldersIsUnchanged) {
    test::writeFile(folder.path() / "no/1", "");
    copy->set(at("no/1"), LocalStatus::Unmodified);
    watcher->refused = at("no");
    startReal();
    EXPECT_THAT(watched(), ElementsAre("."));
    watcher->refused = Path();
    test::writeFile(folder.path() / "no/2", ""); // before the watch
    real->refreshCMStatuses({at("x")});
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "no"));
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files x", testing::StartsWith("files no/")));
}

TEST_F(UpdaterTest, WatchesFoldersOfASuspensionAtTheNextChange) {
    startReal();
    auto guard = updater->disable();
    test::writeFile(folder.path() / "a/b/1", "");
    watcher->tell(Kind::Appeared, at("a"));
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre("."));
    const auto last = fs::last_write_time(folder.path() / "a/b/1");
    do // until the clock of file times tells later changes from these
        test::writeFile(folder.path() / "clock", "");
    while (fs::last_write_time(folder.path() / "clock") < last + std::chrono::milliseconds(20));
    guard.release();
    real->refreshCMStatuses({at("x")});
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "a", "a/b"));
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files x"));

    auto second = updater->disable();
    fs::remove_all(folder.path() / "a/b");
    watcher->tell(Kind::Vanished, at("a/b"));
    second.release();
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "a")) << "a folder that has gone would be polled";
}

TEST_F(UpdaterTest, AsksForWhatWentBeforeItsFolderWasWatched) {
    for (const auto* name : {"a/1", "b/1", "c/1"}) {
        test::writeFile(folder.path() / name, "");
        copy->set(at(name), LocalStatus::Unmodified);
    }
    copy->set(at("d/1"), LocalStatus::Missing);
    copy->inCall = [&](const auto&...) {
        fs::remove(folder.path() / "a/1");
        fs::remove_all(folder.path() / "b");
    };
    updater.emplace(real, *adapter);
    real->refreshCMStatuses({at("a/1"), at("b/1"), at("d/1")});
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files a/1 b/1 d/1", "folder a", "folder b"));
}

TEST_F(UpdaterTest, AsksForWhatCameAndWentBetweenTwoRounds) {
    test::writeFile(folder.path() / "a/1", "");
    for (const auto* name : {"a/1", "a/2"})
        copy->set(at(name), LocalStatus::Unmodified);
    startReal();
    const auto askedAfterLossBeside = [&](platform::WatchHealth::Means means) {
        watcher->health.means = means;
        watcher->tell(Kind::Vanished, at("a/3"));
        detection.runStrands();
        return copy->takeCalls();
    };
    using Means = platform::WatchHealth::Means;
    EXPECT_THAT(askedAfterLossBeside(Means::Native), ElementsAre("files a/3"));
    copy->inCall = [&](const auto&...) { copy->set(at("a/2"), LocalStatus::Missing); };
    EXPECT_THAT(askedAfterLossBeside(Means::Polled), ElementsAre("files a/3", "folder+ a"));
    EXPECT_THAT(askedAfterLossBeside(Means::Polled), ElementsAre("files a/3"));
}

TEST_F(UpdaterTest, LooksAtEveryAnswerAndSpoilsNoRefresh) {
    for (const auto* name : {"a/1", "b"})
        copy->set(at(name), LocalStatus::NotUnderSourceControl);
    startReal();
    // What it asked for is joined with what somebody cancels, and comes as a retry.
    watcher->tell(Kind::Appeared, at("a/x"));
    detection.strand().runOne();
    real->refreshCMStatuses({at("b")})->cancel();
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), IsEmpty());
    detection.endWindows();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files a/x", "folder+ a"));

    copy->set(at("b"), LocalStatus::Ignored);
    const auto task = real->refreshFolder(root);
    detection.strand().refuse(true);
    detection.runStrands();
    EXPECT_NO_THROW(task->wait());
}

TEST_F(UpdaterTest, FollowsAnAnswerThatComesInsideItsRequest) {
    copy->set(at("a/1"), LocalStatus::NotUnderSourceControl);
    detection.strand().runAtOnce(); // the cache's
    startReal();
    watcher->tell(Kind::Vanished, at("a/1"));
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files a/1", "folder+ a"));
    watcher->tell(Kind::Changed, at("a/2"));
    detection.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("files a/2")) << "nothing counts as under way";
}

TEST_F(UpdaterTest, AsksForFoldersThatDoNotFitWhatIsInThem) {
    const auto set = [&](const std::string& name, LocalStatus status) {
        copy->states.insert_or_assign(at(name), FileState(status, name.back() == 'd'));
    };
    for (const auto* name : {"ad", "ad/bd", "ad/bd/1", "ad/bd/2"})
        set(name, LocalStatus::NotUnderSourceControl);
    for (const auto* name : {"cd", "cd/1"})
        set(name, LocalStatus::Unmodified);
    startReal();
    const auto askedAfterOwn = [&](const std::string& name, LocalStatus status) {
        set(name, status);
        real->refreshCMStatuses({at(name)});
        detection.runStrands();
        return copy->takeCalls();
    };

    for (const auto* name : {"ad", "ad/bd"})
        set(name, LocalStatus::Unmodified);
    EXPECT_THAT(askedAfterOwn("ad/bd/1", LocalStatus::Added),
                ElementsAre("files ad/bd/1", "files ad/bd ad"));
    EXPECT_EQ(real->getCachedStatus(at("ad"))->getState(), LocalStatus::Unmodified);
    EXPECT_THAT(askedAfterOwn("ad/bd/1", LocalStatus::Modified), ElementsAre("files ad/bd/1"));

    // An answer that still does not fit is no reason to ask again.
    EXPECT_THAT(askedAfterOwn("cd/1", LocalStatus::Deleted), ElementsAre("files cd/1", "files cd"));
    EXPECT_THAT(askedAfterOwn("cd/1", LocalStatus::Deleted), ElementsAre("files cd/1"));
    EXPECT_THAT(askedAfterOwn("cd", LocalStatus::Modified), ElementsAre("files cd"));

    // A file takes the place of a folder, whose files leave the index with that.
    set("e/1", LocalStatus::Missing);
    askedAfterOwn("e/1", LocalStatus::Missing);
    askedAfterOwn("e", LocalStatus::NotUnderSourceControl);
    EXPECT_TRUE(real->getCachedStatus(at("e/1")));
    copy->erase(at("e/1"));
    EXPECT_THAT(askedAfterOwn("e", LocalStatus::Added), ElementsAre("files e", "folder+ e"));
    EXPECT_FALSE(real->getCachedStatus(at("e/1")));
}

TEST_F(UpdaterTest, WatchesWhatIsNotIgnoredAsAWhole) {
    const auto set = [&](const std::string& name) {
        copy->states.insert_or_assign(at(name),
                                      FileState(LocalStatus::Ignored, name.back() == 'd'));
    };
    for (const auto* name : {"ad/x/y", "bd/x"})
        fs::create_directories(folder.path() / name);
    for (const auto* name : {"ad", "ad/1", "bd"})
        set(name);
    startReal();
    EXPECT_THAT(watched(), ElementsAre(".", "ad", "ad/x", "ad/x/y"));
    set("bd/1"); // it is not clear yet whether all in the folder is one entry
    real->refreshCMStatuses({at("bd/1")});
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "ad", "ad/x", "ad/x/y", "bd", "bd/x"));
    copy->erase(at("ad/1"));
    real->refreshFolder(root);
    detection.runStrands();
    EXPECT_THAT(watched(), ElementsAre(".", "bd", "bd/x"));
}

TEST_F(UpdaterTest, WatchesNoInstallationAndRemembersARefusedRoot) {
    watcher->refused = root;
    start();
    EXPECT_THROW(std::rethrow_exception(updater->rootRefusal()),
                 platform::ChangeEventsSubscriptionException);
    const test::LogCapture log;
    std::filesystem::create_directory(folder.path() / "bin");
    for (const auto* name : {".", "bin"}) {
        installation->folder = at(name);
        start();
        hold({"a/1"});
        EXPECT_THAT(watched(), IsEmpty());
    }
    EXPECT_EQ(log.count("File watch not being enabled for folder because it is KESTRO root"), 2U);
}

} // namespace
} // namespace quendo
