#include "quendo/platform/FolderDeletionWatcher.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "quendo/pool/RootWatch.h"
#include "tests/support/OwnNamespaces.h"
#include "tests/support/RealFolder.h"
#include "tests/support/SteppedDetection.h"

#include <sys/mount.h>

namespace quendo {
namespace {

using namespace std::chrono_literals;

/// A working copy that goes, under a managed folder and real threads.
class Gone : public testing::Test {
protected:
    Gone() { test::makeRepository(sandbox); }

    struct Way {
        std::function<void()> prepare, go, comeBack;
        int goings = 1; ///< at most: where something else is there meanwhile, that goes too
    };

    void run(const Way& way) {
        const int rounds = test::isLong ? 100 : 3;
        for (int i = 0; i < rounds && !HasFailure(); ++i) {
            SCOPED_TRACE(i);
            ::umount2(copy.c_str(), MNT_DETACH);
            for (const auto& folder : {parent, moved})
                fs::remove_all(folder);
            way.prepare();
            round(way, i % 3);
        }
    }

    test::GitSandbox sandbox;
    const fs::path parent = sandbox.root() / "parent", copy = parent / "copy",
                   moved = sandbox.root() / "moved";
    const std::function<void()> makeCopy = [this] {
        fs::create_directories(copy);
        fs::copy(sandbox.work(), copy, fs::copy_options::recursive);
    };

private:
    /// @param when it goes: before a query reaches git, when it does so, or in the middle
    void round(const Way& way, int when) {
        test::RealServices real;
        real.longestDelay = 20ms;
        const auto gate = std::make_shared<test::Gate>();
        real.factory->inQuery = [gate] { gate->pass(); };
        const auto provider = createNewManagedFolderProviderInstance(real.services);
        const test::FollowedFolder followed(provider->provideFor(Path::fromNative(copy.native())));
        auto& cache = followed.cache;
        std::atomic<int> told = 0;
        std::promise<void> gone;
        followed.folder->connectDeleted([] { throw 1; }); // the next one is told all the same
        const boost::signals2::scoped_connection deleted(followed.folder->connectDeleted([&] {
            if (++told == 1)
                gone.set_value();
        }));
        cache.refreshAll();
        EXPECT_TRUE(followed.has(u"sub/b", LocalStatus::Unmodified));

        // Tasks that are handed in before it goes, at any time meanwhile, and when it has gone.
        const std::vector<std::function<void()>> requests{
            [&] { cache.refreshAll(); },
            [&] { cache.refreshFolder(followed.root / u"sub")->wait(); },
            [&] { cache.refreshCMStatuses({followed.root / u"a"})->wait(); },
            [&] { cache.refreshCMStatuses({followed.root / u"sub/b"})->wait(); },
        };
        std::atomic<bool> hasGone = false;
        std::vector<std::future<void>> waiters;
        gate->isClosed = true;
        for (const auto& request : requests)
            waiters.push_back(test::onThread([&] {
                for (bool isLast = false; !isLast;) {
                    isLast = hasGone;
                    try {
                        request();
                    } catch (const std::exception&) { // it depends on when it went
                    }
                }
            }));
        test::within(gate->arrived.get_future());
        if (when != 0)
            gate->opened.set_value();
        if (when == 2)
            sandbox.git({"status"}, copy); // takes about as long
        way.go();
        if (when == 0)
            gate->opened.set_value();
        if (way.goings != 0)
            test::within(gone.get_future());
        hasGone = true;
        for (auto& waiter : waiters)
            test::within(std::move(waiter));
        EXPECT_ANY_THROW(cache.refreshAll());

        // Changes of files are to be seen without the detection of foreign changes.
        const auto detector =
            followed.folder->getAdapter().getSubsystem(typeid(FolderExternalChangeDetector));
        const auto off = std::any_cast<FolderExternalChangeDetector*>(detector)->disable();
        way.comeBack();
        if (way.goings != 0) {
            cache.refreshAll();
            EXPECT_EQ(followed.cached(), followed.asked());
        }
        test::writeFile(copy / "sub/b", "changed");
        EXPECT_TRUE(followed.comes(u"sub/b", LocalStatus::Modified));
        test::writeFile(copy / "new/deep", "");
        EXPECT_TRUE(followed.comes(u"new/deep", LocalStatus::NotUnderSourceControl));
        EXPECT_GE(told, std::min(way.goings, 1));
        EXPECT_LE(told, way.goings);
    }
};
using GoneDeathTest = Gone;

TEST_F(Gone, Deleted) {
    run({makeCopy, [&] { fs::remove_all(copy); }, makeCopy});
}
TEST_F(Gone, Renamed) {
    run({makeCopy, [&] { fs::rename(copy, parent / "other"); },
         [&] { fs::rename(parent / "other", copy); }});
}
TEST_F(Gone, DeletedWithItsParent) {
    run({makeCopy, [&] { fs::remove_all(parent); }, makeCopy});
}
TEST_F(Gone, RenamedWithItsParent) {
    run({makeCopy, [&] { fs::rename(parent, moved); }, [&] { fs::rename(moved, parent); }});
}
TEST_F(Gone, ReplacedByAnotherFolder) {
    const auto replace = [&] {
        fs::rename(copy, moved);
        test::writeFile(copy / "sub/b", "another's");
    };
    const auto comeBack = [&] {
        fs::remove_all(copy);
        fs::rename(moved, copy);
    };
    run({makeCopy, replace, comeBack, 2});
}
TEST_F(Gone, Unreadable) {
    const auto allow = [&](fs::perms perms) { return [=, this] { fs::permissions(copy, perms); }; };
    makeCopy();
    allow(fs::perms::none)();
    std::error_code refused;
    fs::directory_iterator(copy, refused);
    allow(fs::perms::owner_all)();
    if (!refused)
        GTEST_SKIP() << "SKIPPED: nothing is unreadable for this user";
    run({makeCopy, allow(fs::perms::none), allow(fs::perms::owner_all), 0});
}
TEST_F(GoneDeathTest, Unmounted) {
    test::expectSuccessInOwnNamespaces([&] {
        const auto mount = [&] {
            fs::create_directories(copy);
            if (::mount("none", copy.c_str(), "tmpfs", 0, nullptr) != 0)
                test::skipForWantOfRights();
            makeCopy();
        };
        // Detached: git may be at work in it.
        run({mount, [&] { EXPECT_EQ(::umount2(copy.c_str(), MNT_DETACH), 0); }, mount, 2});
        ::umount2(copy.c_str(), MNT_DETACH);
        fs::remove_all(sandbox.root());
    });
}

/// Makes no watchers while `fails`.
struct FailingDeletions : platform::FolderDeletionWatcherFactory {
    std::unique_ptr<platform::FolderDeletionWatcher> watch(const Path& folder) override {
        failures += fails ? 1 : 0;
        return fails ? throw std::bad_alloc() : real->watch(folder);
    }
    const std::shared_ptr<platform::FolderDeletionWatcherFactory> real =
        platform::services()->deletionWatchers;
    bool fails = false;
    int failures = 0;
};

// Each notice comes when there is a thread again, and a watcher.
TEST(RootWatchTest, LosesNothingForLackOfAThread) {
    platform::InotifyFolderWatcherOptions options;
    options.pollInterval = 5ms;
    test::SteppedDetection detection(std::make_shared<platform::InotifyFolderWatcher>(options));
    auto services = *platform::services();
    const auto deletions = std::make_shared<FailingDeletions>();
    services.deletionWatchers = deletions;
    const platform::ScopedServices scoped(services);
    const test::TemporaryFolder folder;
    const auto root = folder.path() / "root";
    fs::create_directory(root);
    std::string told;
    const RootWatch watch(
        Path::fromNative(root.native()), [&] { told += "gone "; }, [&] { told += "back "; });
    auto& strand = detection.strand("CMRootWatch");
    for (const std::string expected : {"gone ", "gone back "}) {
        strand.refuse(true);
        told.empty() ? fs::remove(root) : fs::create_directory(root);
        std::promise<void> reached;
        platform::services()->folderWatcher->fence([&] { reached.set_value(); });
        test::within(reached.get_future());
        strand.refuse(false);
        while (told != expected && detection.awaitTask())
            detection.runStrands();
        EXPECT_EQ(told, expected);
    }
    deletions->fails = true;
    fs::remove(root);
    fs::create_directory(root);
    while (deletions->failures == 0 && detection.awaitTask())
        detection.runStrands();
    EXPECT_EQ(told, "gone back gone ");
    deletions->fails = false;
    EXPECT_GE(detection.endWindows(), 1U);
    EXPECT_EQ(told, "gone back gone back ");
}

} // namespace
} // namespace quendo
