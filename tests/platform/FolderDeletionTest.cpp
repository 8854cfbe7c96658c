#include "quendo/platform/FolderDeletionWatcher.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/StandardFolderDeletionWatcher.h"
#include "tests/support/FakeFolderWatcher.h"
#include "tests/support/JoinedThreads.h"
#include "tests/support/OwnNamespaces.h"

#include <fcntl.h>
#include <sys/mount.h>

namespace quendo::platform {
namespace {

TEST(FolderDeletion, IsToldOnceHoweverTheFolderGoes) {
    const test::TemporaryFolder temporary;
    const auto parent = temporary.path() / "parent", folder = parent / "folder";
    const auto path = Path::fromNative(folder.native());
    const auto settle = [] {
        std::promise<void> reached;
        services()->folderWatcher->fence([&] { reached.set_value(); });
        test::within(reached.get_future());
    };
    const std::vector<std::function<void()>> ends{
        [&] { fs::remove_all(folder); },
        [&] { fs::remove_all(parent); },
        [&] { fs::rename(folder, parent / "other"); },
        [&] { fs::rename(parent, temporary.path() / "moved"); },
        [&] {
            fs::remove_all(folder); // the new one may get its number
            fs::create_directory(folder);
        },
        [&] {
            fs::create_directory(parent / "other");
            fs::rename(parent / "other", folder);
        },
        [&] {
            fs::rename(parent, temporary.path() / "moved");
            fs::create_directories(folder);
        },
    };
    const auto round = [&](std::size_t i) {
        for (const auto& entry : fs::directory_iterator(temporary.path()))
            fs::remove_all(entry);
        fs::create_directories(folder);
        std::atomic<int> told = 0;
        std::promise<void> gone;
        auto watcher = services()->deletionWatchers->watch(path);
        watcher->onDeleted([&] {
            EXPECT_TRUE(watcher->isDeleted());
            if (++told == 1)
                gone.set_value();
        });
        test::writeFile(folder / "file", "");
        test::writeFile(parent / "neighbour", "");
        fs::remove(folder / "file");
        settle();
        EXPECT_FALSE(watcher->isDeleted()) << i;
        ends[i]();
        test::within(gone.get_future());
        settle();
        EXPECT_EQ(told, 1) << i;
    };
    const auto kept =
        services()->folderWatcher->watch(Path::fromNative(temporary.path().native()),
                                         FolderWatcher::Scope::Itself, [](const FolderEvent&) {});
    const auto before = test::held();
    for (std::size_t i = 0; i < ends.size(); ++i) {
        for (int times = 0; times < 100; ++times)
            round(i);
    }
    EXPECT_EQ(test::held(), before);
    fs::remove_all(parent);
    EXPECT_TRUE(services()->deletionWatchers->watch(path)->isDeleted());
}

TEST(FolderDeletion, WatcherMayGoInItsListener) {
    const test::TemporaryFolder temporary;
    const auto folder = temporary.path() / "folder";
    for (int i = 0; i < 100; ++i) {
        fs::create_directory(folder);
        auto watcher = services()->deletionWatchers->watch(Path::fromNative(folder.native()));
        std::promise<void> gone;
        watcher->onDeleted([&] {
            watcher.reset();
            gone.set_value();
        });
        watcher->onDeleted([] { ADD_FAILURE() << "the watcher has gone"; });
        fs::remove(folder);
        test::within(gone.get_future());
    }
}

// Of a folder in a remote file system, which is looked at on a strand, with no further event.
TEST(FolderDeletionDeathTest, IsToldAgainWhenAListenerLacksAThread) {
    test::expectSuccessInOwnNamespaces([] {
        const test::TemporaryFolder temporary;
        const auto events = std::make_shared<test::FakeFolderWatcher>();
        const auto watcher =
            StandardFolderDeletionWatcherFactory(events).watch(temporary.quendoPath());
        std::promise<void> again;
        watcher->onDeleted([&, calls = 0]() mutable {
            if (++calls == 1)
                throw std::system_error(EAGAIN, std::generic_category(), "no thread");
            again.set_value();
        });
        const int server = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
        const auto how = "fd=" + std::to_string(server) + ",rootmode=40000,user_id=0,group_id=0";
        if (::mount("none", temporary.path().c_str(), "fuse", 0, how.c_str()) != 0)
            test::skipForWantOfRights();
        ::close(server); // each call fails
        events->tell(FolderEvent::Kind::ContentsUnknown, temporary.quendoPath());
        test::within(again.get_future());
        ::umount2(temporary.path().c_str(), MNT_DETACH);
    });
}

} // namespace
} // namespace quendo::platform
