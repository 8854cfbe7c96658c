#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/BranchInformation.h"
#include "quendo/adapter/EventBroadcastingCMAdapter.h"
#include "quendo/cache/BranchStateCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheStatistics.h"
#include "quendo/change_detection/DisableChangeDetection.h"
#include "quendo/pool/FindInterface.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/RealFolder.h"
#include "tests/support/ThreadClock.h"

#include <pthread.h>
#include <sys/stat.h>

namespace quendo {
namespace {

using platform::FolderWatcher;

std::string threadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

/// A repository and a provider for it, on the system's events and the library's threads.
struct Road {
    Road() {
        test::makeRepository(sandbox);
        real.factory->inQuery = [this] { query.pass(); };
        real.factory->adds = [this] { add.pass(); };
        real.inWindow = [this] {
            if (++windows == 1)
                windowOpened.set_value();
        };
        real.inWatch = [this](const Path& folder) {
            if (folder.fileName().string() == u"bare") {
                watch.pass();
                if (isDroppedInWatch)
                    drop();
            }
        };
        provider = createNewManagedFolderProviderInstance(real.services);
        provider->connectFolderReleased([this](const Path& folder) {
            if (folder == root)
                released.set_value(threadName());
        });
    }

    /// Another working copy, with the file "a".
    fs::path makeOther() const {
        const auto other = at("other");
        sandbox.init({"--template="}, other);
        test::writeFile(other / "a", "1");
        sandbox.commitAll("first", other);
        return other;
    }
    fs::path at(const char* name) const { return sandbox.root() / name; }
    void write(const char* file, const char* text) const {
        test::writeFile(sandbox.work() / file, text);
    }
    std::shared_ptr<ManagedFolder> filledFolder() const {
        auto folder = provider->provideFor(root);
        folder->getCache().setFolderStatusFlag(true);
        folder->getCache().refreshAll();
        return folder;
    }
    /// All that has happened on the disk has been told.
    void awaitEvents() const {
        std::promise<void> reached;
        real.services.folderWatcher->fence([&] { reached.set_value(); });
        test::within(reached.get_future());
    }
    /// @return the thread that it happened on
    std::string awaitRelease() { return test::within(released.get_future()); }

    void keep(std::shared_ptr<ManagedFolder> folder) {
        const std::lock_guard lock(mutex);
        last = std::move(folder);
    }
    /// Lets go of what is kept.
    void drop(const std::function<void(ManagedFolder&)>& visit = [](ManagedFolder&) {}) {
        std::shared_ptr<ManagedFolder> dropped;
        {
            const std::lock_guard lock(mutex);
            dropped.swap(last);
        }
        if (dropped != nullptr)
            visit(*dropped);
    }

    test::GitSandbox sandbox;
    const Path root = Path::fromNative(sandbox.work().native());
    test::Gate query, add, watch; ///< of the folder "bare"
    std::atomic<bool> isDroppedInWatch = false;
    std::atomic<int> windows = 0; ///< of the detector of foreign changes
    std::promise<void> windowOpened;
    std::promise<std::string> released;
    std::mutex mutex;
    std::shared_ptr<ManagedFolder> last; ///< guarded by `mutex`
    test::RealServices real;
    std::unique_ptr<FolderWatcher::Watch> ownWatch;
    std::unique_ptr<ManagedFolderProvider> provider;
};

// The way through all layers to what Git's adapter offers beside the operations of every adapter.
TEST(Roads, PassAQueryThatRuns) {
    Road road;
    const auto folder = road.filledFolder();
    const auto* branches = std::any_cast<BranchInformation*>(
        folder->getAdapter().getSubsystem(typeid(BranchInformation)));
    road.query.isClosed = true;
    const auto task = folder->getCache().refreshFolder(road.root);
    test::within(road.query.arrived.get_future());
    const auto state = branches->getBranchState();
    road.query.opened.set_value();
    task->wait();
    EXPECT_EQ(toUtf8(state.commit) + "\n", road.sandbox.git({"rev-parse", "main"}));
}

// While an operation of one working copy waits, others are refreshed.
TEST(Roads, PassAHookOfAnotherWorkingCopy) {
    Road road;
    const auto other = road.makeOther();
    for (const char* name : {"running", "goOn"})
        ASSERT_EQ(::mkfifo(road.at(name).c_str(), 0600), 0);
    test::writeFile(road.sandbox.work() / ".git/hooks/pre-commit",
                    "#!/bin/sh\n: >../running\nread line <../goOn\n");
    fs::permissions(road.sandbox.work() / ".git/hooks/pre-commit", fs::perms::owner_all);
    const auto folder = road.filledFolder();
    const test::FollowedFolder followed(
        road.provider->provideFor(Path::fromNative(other.native())));
    followed.cache.refreshAll();

    road.write("a", "2");
    test::writeFile(other / "a", "2");
    auto checkin = test::onThread([&] { folder->getAdapter().checkin(road.root / u"a", u"slow"); });
    test::within(test::onThread([&] { std::ifstream(road.at("running")).get(); }));
    test::within(test::onThread([&] { followed.cache.refreshAll(); }));
    EXPECT_TRUE(followed.has(u"a", LocalStatus::Modified));
    std::ofstream(road.at("goOn")) << "\n";
    test::within(std::move(checkin));
    EXPECT_EQ(road.sandbox.git({"rev-list", "--count", "main"}), "2\n");

    // So they are while another process holds the index.
    std::promise<void> waits;
    folder->getCMInteractor().getProgressDispatcher().connect([&](const UString& text, double) {
        if (text.starts_with(u"waiting"))
            waits.set_value();
    });
    road.write("a", "3");
    const auto lock = road.sandbox.work() / ".git/index.lock";
    test::writeFile(lock, "");
    auto adding = test::onThread([&] { folder->getAdapter().addFiles({road.root / u"a"}); });
    test::within(waits.get_future());
    test::writeFile(other / "a", "1");
    test::within(test::onThread([&] { followed.cache.refreshAll(); }));
    EXPECT_TRUE(followed.has(u"a", LocalStatus::Unmodified));
    fs::remove(lock);
    test::within(std::move(adding));
}

// So they are while a query fetches what its clone lacks.
TEST(Roads, PassAFetchOfAnotherWorkingCopy) {
    Road road;
    const auto running = road.at("running"), goOn = road.at("goOn");
    const auto made = road.sandbox.run(
        {"sh", "-ec",
         "seq 9 > a; git commit -qam 2; git mv a c; echo 10 >> c; git commit -qam 3\n"
         "git config uploadpack.allowFilter true; cd ..; mkfifo running goOn\n"
         "git clone -q --filter=blob:none --no-checkout file://$PWD/work other\n"
         "git -C other read-tree HEAD; git config --global remote.origin.uploadpack \"[ ! -p \\\n"
         "$PWD/running ] || { : >$PWD/running; read line <$PWD/goOn; }; git-upload-pack\""},
        road.sandbox.work());
    ASSERT_EQ(made.exitCode, 0) << made.errors;
    const auto other = road.provider->provideFor(Path::fromNative(road.at("other").native()));
    const test::FollowedFolder followed(road.filledFolder());
    auto listing = test::onThread([&] {
        return other->getAdapter().listRevisions(other->getRootFolder() / u"c", {}).size();
    });
    test::within(test::onThread([&] { std::ifstream(running).get(); }));
    fs::remove(running);
    road.write("sub/b", "2");
    test::within(test::onThread([&] { followed.cache.refreshAll(); }));
    EXPECT_TRUE(followed.has(u"sub/b", LocalStatus::Modified));
    std::ofstream(goOn) << "\n";
    EXPECT_EQ(test::within(std::move(listing)), 3U);
}

// A background query is interrupted when its time is up and another working copy waits.
TEST(Roads, PassAQueryThatHangs) {
    Road road;
    const auto other = road.provider->provideFor(Path::fromNative(road.makeOther().native()));
    const auto hangs = road.at("hangs"), text = road.at("text");
    test::writeFile(road.sandbox.work() / ".git/info/attributes", "a filter=f");
    road.sandbox.git({"config", "--global", "filter.f.clean",
                      "[ ! -p ../hangs ] || { : > ../hangs; exec sleep 1000; }; cat"});
    const test::FollowedFolder followed(road.filledFolder());
    const auto* statistics = findInterface<CMStatusCacheStatistics>(*followed.folder);
    // The first may be answered by what is refreshed because the folder is new.
    for (const auto state : {LocalStatus::Modified, LocalStatus::Unmodified}) {
        ASSERT_EQ(::mkfifo(hangs.c_str(), 0600), 0);
        test::writeFile(text, state == LocalStatus::Modified ? "2" : "1");
        fs::rename(text, road.sandbox.work() / "a");
        test::within(test::onThread([&] { std::ifstream(hangs).get(); }));
        fs::remove(hangs);
        const auto states = test::within(test::onThread([&] {
            test::clockAhead = std::chrono::minutes(10);
            return other->getAdapter().getStatus(other->getRootFolder(), true);
        }));
        EXPECT_EQ(states.at(other->getRootFolder() / u"a").getState(), LocalStatus::Unmodified);
        EXPECT_TRUE(followed.comes(u"a", state));
        followed.cache.refreshAll(); // what told that has ended
    }
    const auto counts = statistics->getStatistics();
    EXPECT_GE(counts.of(RefreshReason::FileEvent).interrupted, 1U) << describe(counts);
    EXPECT_GE(counts.of(RefreshReason::Retry).queries, 1U) << describe(counts);
}

// Own operations, changes by others, and a discarding, of which the adapter raises no signal.
TEST(Roads, OfTheBranchState) {
    Road road;
    const auto folder = road.filledFolder();
    auto& cache = *folder->getBranchStateCache();
    const auto news = std::make_shared<std::condition_variable>();
    cache.connectChanged([&road, news](const auto&) {
        const std::lock_guard lock(road.mutex);
        news->notify_all();
    });
    const auto comes = [&](auto isKnown) {
        std::unique_lock lock(road.mutex);
        return news->wait_until(lock, test::byDeadline(), [&] {
            const auto known = cache.getBranchState().state;
            return known && isKnown(*known);
        });
    };
    const auto commit = [&] { return toUString(road.sandbox.git({"rev-parse", "HEAD"})); };
    EXPECT_TRUE(comes([](const auto& state) { return state.branch == u"main"; }));
    road.write("a", "2");
    folder->getAdapter().checkin(road.root / u"a", u"own");
    EXPECT_TRUE(comes([&](const auto& state) { return state.commit + u"\n" == commit(); }));
    road.sandbox.git({"checkout", "-q", "-b", "topic", "HEAD~1"});
    EXPECT_TRUE(comes([](const auto& state) { return state.branch == u"topic"; }));
    road.sandbox.git({"merge", "-q", "--no-ff", "--no-commit", "main"});
    const auto is = [](OngoingOperation operation) {
        return [=](const auto& state) { return state.operation == operation; };
    };
    EXPECT_TRUE(comes(is(OngoingOperation::Merge)));
    folder->getAdapter().discardChanges();
    EXPECT_TRUE(comes(is(OngoingOperation::None)));
}

// The first of two guards that goes turns detection on, for files and for the repository.
TEST(Roads, AreClosedWhileDetectionIsDisabled) {
    Road road;
    const platform::ScopedServices scoped(road.real.services);
    auto one = disableChangeDetection(road.root / u"a"),
         two = disableChangeDetection(road.root / u"sub");
    auto& singleton = getSingletonManagedFolderProvider();
    {
        const test::FollowedFolder followed(singleton.provideFor(road.root));
        followed.cache.refreshAll();
        road.write("a", "2");
        road.sandbox.git({"branch", "foreign"});
        road.awaitEvents();
        one.release();
        EXPECT_EQ(road.windows, 0);
        road.write("sub/b", "2");
        EXPECT_TRUE(followed.comes(u"sub/b", LocalStatus::Modified));
        road.sandbox.commitAll("foreign");
        EXPECT_TRUE(followed.comes(u"sub/b", LocalStatus::Unmodified));
    }
    EXPECT_EQ(singleton.getManagedFolders().size(), 1U);
    two.release();
    EXPECT_TRUE(singleton.getManagedFolders().empty());
}

const int rounds = test::isLong ? 100 : 1;

TEST(Roads, EndInTheMiddle) {
    using Folder = std::shared_ptr<ManagedFolder>;
    const auto letGo = [](Road& road, Folder folder) {
        folder.reset();
        road.awaitRelease();
    };
    const std::vector<std::function<void(Road&, Folder)>> moments{
        [&](Road& road, Folder folder) {
            road.query.isClosed = true;
            road.write("a", "2");
            test::within(road.query.arrived.get_future());
            letGo(road, std::move(folder));
            road.query.opened.set_value();
        },
        [&](Road& road, Folder folder) {
            road.watch.isClosed = true;
            fs::create_directory(road.at("work/bare"));
            test::within(road.watch.arrived.get_future());
            letGo(road, std::move(folder));
            road.watch.opened.set_value();
        },
        [&](Road& road, Folder folder) {
            road.sandbox.git({"branch", "foreign"});
            test::within(road.windowOpened.get_future());
            letGo(road, std::move(folder));
        },
        [&](Road& road, Folder folder) {
            const auto detection = folder->disable();
            letGo(road, std::move(folder));
        },
        [&](Road& road, Folder folder) {
            road.add.isClosed = true;
            road.write("new", "");
            auto operation = test::onThread([own = folder, file = road.root / u"new"]() mutable {
                own->getAdapter().addFiles({file});
                own.reset();
            });
            test::within(road.add.arrived.get_future());
            folder.reset();
            road.add.opened.set_value();
            road.awaitRelease();
            test::within(std::move(operation));
        },
    };
    for (int i = 0; i < rounds * static_cast<int>(moments.size()) && !testing::Test::HasFailure();
         ++i) {
        SCOPED_TRACE(i);
        Road road;
        moments[static_cast<std::size_t>(i) % moments.size()](road, road.filledFolder());
        EXPECT_TRUE(road.provider->getManagedFolders().empty());
    }
}

struct Drop {
    void operator()(const auto&...) const { road.drop(); }
    Road& road;
};

// The last reference may be dropped wherever the library calls.
TEST(Roads, EndOnEveryThread) {
    using Cause = std::function<void(Road&)>;
    struct Case {
        std::string thread;
        std::function<void(Road&, ManagedFolder&)> arm; ///< has it dropped by what `cause` does
        Cause cause;
    };
    const Cause change = [](Road& road) { road.write("a", "2"); };
    const Cause makeBareFolder = [](Road& road) { fs::create_directory(road.at("work/bare")); };
    const Cause branch = [](Road& road) { road.sandbox.git({"branch", "foreign"}); };
    const Cause goAway = [](Road& road) { fs::rename(road.at("work"), road.at("away")); };
    const Cause askForOther = [](Road& road) {
        road.sandbox.init({}, road.at("other"));
        road.provider->provideFor(Path::fromNative(road.at("other").native()));
    };
    const Cause askForDamaged = [](Road& road) {
        fs::create_directories(road.at("damaged/.git"));
        road.provider->provideFaultyFor(Path::fromNative(road.at("damaged").native()));
    };
    const Cause trigger = [](Road& road) { road.last->getStatusTrigger().trigger(); };
    const Cause stop = [](Road& road) {
        road.last->getCMInteractor().getTerminationTrigger().trigger();
    };
    const Cause add = [](Road& road) { road.last->getAdapter().addFiles({road.root / u"a"}); };
    const Cause move = [](Road& road) {
        road.last->getAdapter().moveFile(road.root / u"sub", road.root / u"moved");
    };
    const Cause checkin = [](Road& road) {
        road.write("a", "2");
        road.last->getAdapter().checkin(road.root / u"a", u"own");
    };
    const auto broadcaster = [](ManagedFolder & folder) -> auto& {
        return *findInterface<EventBroadcastingCMAdapter>(folder);
    };
    const auto waitInVain = [](ManagedFolder& folder) {
        EXPECT_THROW(folder.getCache().refreshAll(), ExecutorDeadlockError);
    };
    const std::string cache = "CMStatusCache_w", own = threadName();
    const std::vector<Case> cases{
        {cache, [](auto& r, auto& f) { f.getCache().connectTasksStarted(Drop{r}); }, change},
        {cache,
         [](auto& r, auto& f) {
             dynamic_cast<CMStatusCacheChanges&>(f.getCache()).connectChanges(Drop{r});
         },
         change},
        {cache, [](auto& r, auto& f) { f.getCache().connectCacheChanged(Drop{r}); }, change},
        {cache, [](auto& r, auto& f) { f.getCache().connectTasksFinished(Drop{r}); }, change},
        {"SourceControl",
         [&](auto& r, auto& f) {
             f.getCMInteractor().getProgressDispatcher().connect(
                 [&](const auto&...) { r.drop(waitInVain); });
         },
         change},
        {"quendo-watch",
         [](auto& r, auto&) {
             r.ownWatch = r.real.services.folderWatcher->watch(
                 r.root, FolderWatcher::Scope::Entries, Drop{r});
         },
         change},
        {"CMFileSystemRes", [](auto& r, auto&) { r.isDroppedInWatch = true; }, makeBareFolder},
        {"ChangeDetector",
         [](auto& r, auto& f) { f.getCMInteractor().getStatusDispatcher().connect(Drop{r}); },
         branch},
        {own, [](auto& r, auto& f) { f.getCMInteractor().getStatusDispatcher().connect(Drop{r}); },
         trigger},
        {own, [](auto& r, auto& f) { f.getTerminator().connect(Drop{r}); }, stop},
        {own, [=](auto& r, auto& f) { broadcaster(f).addStatusListener(Drop{r}); }, add},
        {own, [=](auto& r, auto& f) { broadcaster(f).addFolderStatusListener(Drop{r}); }, move},
        {own, [=](auto& r, auto& f) { broadcaster(f).addUpdateListener(Drop{r}); }, checkin},
        {"CMRootWatch", [](auto& r, auto& f) { f.connectDeleted(Drop{r}); }, goAway},
        {"CMRootWatch", [](auto& r, auto&) { r.provider->connectFolderDeleted(Drop{r}); }, goAway},
        {own, [](auto& r, auto&) { r.provider->connectFolderMade(Drop{r}); }, askForOther},
        {own, [](auto& r, auto&) { r.provider->connectClientRegistered(Drop{r}); }, askForOther},
        {own, [](auto& r, auto&) { r.provider->connectFolderReleased(Drop{r}); }, askForOther},
        {own, [](auto& r, auto&) { r.provider->connectFaultRecorded(Drop{r}); }, askForDamaged},
    };
    for (int i = 0; i < rounds * static_cast<int>(cases.size()) && !testing::Test::HasFailure();
         ++i) {
        SCOPED_TRACE(i);
        const auto& [thread, arm, cause] = cases[static_cast<std::size_t>(i) % cases.size()];
        Road road;
        auto folder = road.filledFolder();
        arm(road, *folder);
        road.keep(std::move(folder));
        cause(road);
        EXPECT_EQ(road.awaitRelease(), thread);
        EXPECT_TRUE(road.provider->getManagedFolders().empty());
    }
}

} // namespace
} // namespace quendo
