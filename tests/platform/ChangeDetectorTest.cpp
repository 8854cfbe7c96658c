#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/OwnWrites.h"
#include "quendo/platform/standard/StandardDelayedTaskService.h"
#include "tests/support/FakeFolderWatcher.h"
#include "tests/support/OwnNamespaces.h"
#include "tests/support/SteppedDetection.h"

#include <fcntl.h>
#include <sys/mount.h>

namespace quendo {
namespace {

using Kind = platform::FolderEvent::Kind;

class ChangeDetectorTest : public testing::Test {
protected:
    void makeDetector() {
        detector.emplace(root, std::chrono::milliseconds(250), [this](const Path& path) {
            EXPECT_TRUE(path.isBelow(root)) << path;
            return path.fileName().string() != u"refused";
        });
        detector->onChange([this] { inCallback(); });
    }
    Path at(const std::string& name) const { return root.child(name); }
    void tell(Kind kind, const std::string& name) { watcher->tell(kind, at(name)); }
    int toldAfter(Kind kind, const std::string& name) {
        tell(kind, name);
        return told();
    }
    /// How often was told since the last call.
    int told() {
        detection.endWindows();
        return std::exchange(count, 0);
    }

    test::TemporaryFolder folder;
    const Path root = folder.quendoPath();
    const std::shared_ptr<test::FakeFolderWatcher> watcher =
        std::make_shared<test::FakeFolderWatcher>();
    test::SteppedDetection detection{watcher};
    int count = 0;
    std::function<void()> inCallback = [this] { ++count; };
    std::optional<FolderExternalChangeDetector> detector;
};

TEST_F(ChangeDetectorTest, TellsOnceForAWindowAndNothingWithoutAChange) {
    makeDetector();
    EXPECT_EQ(detection.endWindows(), 0U);
    for (const auto kind : {Kind::Appeared, Kind::Changed, Kind::Vanished})
        tell(kind, "index");
    EXPECT_EQ(told(), 1);
    tell(Kind::Changed, "refused");
    EXPECT_EQ(detection.endWindows(), 0U);
    watcher->tell(Kind::ContentsUnknown, root);
    EXPECT_EQ(told(), 1);

    inCallback = [this, again = true]() mutable {
        ++count;
        if (std::exchange(again, false))
            tell(Kind::Changed, "index");
        throw std::out_of_range("mine");
    };
    EXPECT_EQ(toldAfter(Kind::Changed, "index"), 1);
    EXPECT_EQ(told(), 1); // a change during the callback brings the next
    EXPECT_EQ(told(), 0);

    inCallback = [this, again = 2]() mutable {
        ++count;
        if (again-- > 0)
            throw std::system_error(EAGAIN, std::generic_category());
    };
    EXPECT_EQ(toldAfter(Kind::Changed, "index"), 1);
    EXPECT_EQ(told(), 1);
    EXPECT_EQ(told(), 1);
    EXPECT_EQ(told(), 0);
}

TEST_F(ChangeDetectorTest, WatchesTheTreeAsItIs) {
    fs::create_directories(folder.path() / "a/b");
    fs::create_directories(folder.path() / "refused/below");
    fs::create_directories(folder.path() / "a b");
    fs::create_directory_symlink("a", folder.path() / "link");
    makeDetector();
    EXPECT_THAT(watcher->watched(), UnorderedElementsAre(root, at("a"), at("a/b"), at("a b")));
    EXPECT_EQ(told(), 0);

    test::writeFile(folder.path() / "new/inner/file", "");
    EXPECT_EQ(toldAfter(Kind::Appeared, "new"), 1);
    fs::remove_all(folder.path() / "a");
    EXPECT_EQ(toldAfter(Kind::Vanished, "a"), 1);
    EXPECT_THAT(watcher->watched(),
                UnorderedElementsAre(root, at("a b"), at("new"), at("new/inner")));
    EXPECT_EQ(toldAfter(Kind::Changed, "new/inner/file"), 1);

    // The folder goes, unseen below, and comes back as another.
    fs::remove_all(folder.path());
    watcher->tell(Kind::ContentsUnknown, root);
    EXPECT_THAT(watcher->watched(), UnorderedElementsAre(root));
    fs::create_directories(folder.path() / "new");
    watcher->tell(Kind::ContentsUnknown, root);
    EXPECT_THAT(watcher->watched(), UnorderedElementsAre(root, at("new")));
    EXPECT_EQ(told(), 1);

    // A host that refuses a folder later keeps the others alive; one that refuses at once is heard.
    watcher->refused = at("late");
    fs::create_directories(folder.path() / "late");
    EXPECT_EQ(toldAfter(Kind::Appeared, "late"), 1);
    EXPECT_THAT(watcher->watched(), UnorderedElementsAre(root, at("new")));
    EXPECT_THROW(makeDetector(), platform::ChangeEventsSubscriptionException);
    detector.reset();
    EXPECT_THAT(watcher->watched(), UnorderedElementsAre());
}

TEST_F(ChangeDetectorTest, DisregardsWhatHappenedBetweenTheLines) {
    makeDetector();
    // Told late, but each on its side of the lines.
    for (const std::string when : {"before", "between", "after"}) {
        const auto changeIf = [&](const std::string& moment) {
            if (moment == when)
                tell(Kind::Changed, "index");
        };
        watcher->isHeld = true;
        changeIf("before");
        auto guard = detector->disable();
        changeIf("between");
        guard.release();
        changeIf("after");
        watcher->deliver();
        EXPECT_EQ(told(), when == "between" ? 0 : 1) << when;
    }
    // The window runs on while detection is off.
    tell(Kind::Changed, "index");
    const auto off = detector->disable();
    EXPECT_EQ(told(), 1);
    // Of what is found by looking nobody knows when it happened.
    EXPECT_EQ(toldAfter(Kind::Changed, "index"), 0);
    watcher->tell(Kind::Changed, at("index"), true);
    EXPECT_EQ(told(), 1);

    // A switch: of three guards any that is released turns it on, and the others do not turn it
    // off again.
    auto second = detector->disable(), third = detector->disable();
    second.release();
    EXPECT_EQ(toldAfter(Kind::Changed, "index"), 1);
    third.release();
    EXPECT_EQ(toldAfter(Kind::Changed, "index"), 1);
}

TEST_F(ChangeDetectorTest, StaysOnWhenNoLineCanBeDrawn) {
    makeDetector();
    watcher->fails = true;
    EXPECT_THROW((void)detector->disable(), std::bad_alloc);
    watcher->fails = false;
    EXPECT_EQ(toldAfter(Kind::Changed, "index"), 1);

    auto guard = detector->disable();
    watcher->fails = true;
    guard.release();
    watcher->fails = false;
    EXPECT_EQ(toldAfter(Kind::Changed, "index"), 1);

    // Nobody looks into a folder that is new when the line of the release is late: what is in it
    // may have come afterwards.
    guard = detector->disable();
    fs::create_directory(folder.path() / "own");
    EXPECT_EQ(toldAfter(Kind::Appeared, "own"), 0);
    watcher->isHeld = true;
    tell(Kind::Changed, "index");
    guard.release();
    watcher->deliver();
    EXPECT_EQ(told(), 0);
    guard = detector->disable();
    fs::create_directory(folder.path() / "new");
    watcher->isHeld = true;
    tell(Kind::Appeared, "new");
    guard.release();
    watcher->deliver();
    EXPECT_EQ(told(), 1);

    guard = detector->disable();
    detector.reset();
    guard.release();
}

TEST_F(ChangeDetectorTest, ReportsLostEventsWhenTheyMayBeOfOthers) {
    makeDetector();
    std::shared_ptr<OwnWrites> writes;
    {
        const auto guard = detector->disable(writes);
        watcher->tell(Kind::ContentsUnknown, at("index"));
        EXPECT_EQ(told(), 0);
        watcher->tell(Kind::ContentsUnknown, root);
        EXPECT_EQ(told(), 1);
    }
    auto guard = detector->disable();
    watcher->tell(Kind::ContentsUnknown, root);
    EXPECT_EQ(told(), 0);
    guard.release();
    EXPECT_EQ(told(), 1);
}

TEST_F(ChangeDetectorTest, RemembersWhatThereWasNoThreadFor) {
    makeDetector();
    detection.refuseDelays(true);
    tell(Kind::Changed, "index");
    EXPECT_EQ(told(), 1); // without a window
    detection.strand().refuse(true);
    tell(Kind::Changed, "index");
    EXPECT_EQ(told(), 0);
    detection.strand().refuse(false);
    auto guard = detector->disable(); // whatever happens next
    EXPECT_EQ(told(), 1);
    guard.release();

    detection.refuseDelays(false);
    detection.strand().refuse(true);
    tell(Kind::Changed, "index");
    std::vector<int> delays;
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(detection.endWindows(), 1U);
        delays.push_back(static_cast<int>(detection.lastDelay().count()));
    }
    EXPECT_THAT(delays, ElementsAre(250, 500, 1000, 2000, 4000, 8000, 16000, 30000, 30000));
    detection.strand().refuse(false);
    EXPECT_EQ(told(), 1);

    // A folder that was not watched at once counts as a change when it is.
    fs::create_directory(folder.path() / "new");
    detection.folderStrand().refuse(true);
    EXPECT_EQ(toldAfter(Kind::Appeared, "new"), 1);
    EXPECT_THAT(watcher->watched(), ElementsAre(root));
    detection.folderStrand().refuse(false);
    detection.endWindows();
    EXPECT_THAT(watcher->watched(), ElementsAre(root, at("new")));
    EXPECT_EQ(told(), 1);
}

TEST_F(ChangeDetectorTest, MayBeDestroyedWithALockThatItsCallbackWants) {
    makeDetector();
    bool behind = false;
    inCallback = [&] { detector.reset(); };
    detector->onChange([&] { behind = true; });
    tell(Kind::Changed, "index");
    detection.endWindows();
    EXPECT_FALSE(detector.has_value());

    std::mutex mutex;
    std::promise<void> entered;
    inCallback = [&] {
        entered.set_value();
        const std::lock_guard lock(mutex);
    };
    makeDetector();
    detector->onChange([&] { behind = true; });
    tell(Kind::Changed, "index");
    std::unique_lock lock(mutex);
    auto callback = test::onThread([&] { detection.endWindows(); });
    test::within(entered.get_future());
    test::within(test::onThread([&] { detector.reset(); }));
    lock.unlock();
    test::within(std::move(callback));
    EXPECT_FALSE(behind);

    inCallback = [&] { ++count; };
    makeDetector();
    tell(Kind::Changed, "index");
    detector.reset();
    EXPECT_EQ(told(), 0);
}

// On a dead network mount, listing and watching may take for ever.
TEST(ChangeDetector, HoldsUpNoOtherWhileItsFoldersHang) {
    const test::TemporaryFolder folder;
    const Path dead = folder.quendoPath() / u"dead", live = folder.quendoPath() / u"live";
    fs::create_directory(folder.path() / "dead");
    fs::create_directory(folder.path() / "live");
    const auto watcher = std::make_shared<test::FakeFolderWatcher>();
    const platform::ScopedServices scoped([&] {
        platform::Services services;
        services.folderWatcher = watcher;
        return services;
    }());
    std::promise<void> hangs, goOn, deadTold, liveTold;
    FolderExternalChangeDetector one(dead, {}, nullptr), other(live, {}, nullptr);
    one.onChange([&] { deadTold.set_value(); });
    other.onChange([&] { liveTold.set_value(); });
    watcher->inWatch = [&](const Path&) {
        hangs.set_value();
        test::within(goOn.get_future());
    };
    auto guard = one.disable();
    fs::create_directory(folder.path() / "dead/new");
    const auto tell = [&](Kind kind, const Path& path) {
        test::within(test::onThread([&] { watcher->tell(kind, path); }));
    };
    tell(Kind::Appeared, dead / u"new");
    test::within(hangs.get_future());
    tell(Kind::Changed, live / u"index");
    test::within(liveTold.get_future());
    test::within(test::onThread([&] { guard.release(); })); // gives up waiting
    goOn.set_value();
    test::within(deadTold.get_future()); // what is in there may have come later
    watcher->inWatch = [](const Path&) {};
}

TEST(ChangeDetectorDeathTest, LooksAtNothingThatItsFilterRefuses) {
    test::TemporaryFolder folder;
    test::expectSuccessInOwnNamespaces([&] {
        fs::create_directory(folder.path() / "hanging");
        const int server = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
        const auto how = "fd=" + std::to_string(server) + ",rootmode=40000,user_id=0,group_id=0";
        if (::mount("none", (folder.path() / "hanging").c_str(), "fuse", 0, how.c_str()) != 0)
            test::skipForWantOfRights();
        test::within(test::onThread([&] {
            const FolderExternalChangeDetector detector(
                folder.quendoPath(), std::chrono::milliseconds(250),
                [](const Path& path) { return path.fileName().string() != u"hanging"; });
        }));
        ::close(server);
    });
}

TEST(DelayedTasks, RunWhenTheyAreDueOnOneThreadThatGoes) {
    std::promise<void> first, third;
    std::promise<void> ended[2];
    int threads = 0;
    bool refuse = true;
    platform::StandardDelayedTaskService service([&](UniqueFunction<void()> body) {
        if (refuse)
            throw std::system_error(EAGAIN, std::generic_category(), "no thread");
        test::onThread([body = std::move(body), &end = ended[threads++]]() mutable {
            body();
            end.set_value();
        });
    });
    const auto now = std::chrono::milliseconds(0);
    EXPECT_THROW(service.runAfter(now, [] { std::abort(); }), std::system_error);
    refuse = false;
    service.runAfter(now, [&] {
        service.runAfter(now, [&] { first.set_value(); });
        throw std::out_of_range("mine");
    });
    test::within(first.get_future());
    test::within(ended[0].get_future());
    // One that is due sooner does not wait behind the other.
    service.runAfter(std::chrono::hours(1), [] {});
    service.runAfter(now, [&] { third.set_value(); });
    test::within(third.get_future());
    EXPECT_EQ(threads, 2);
}

} // namespace
} // namespace quendo
