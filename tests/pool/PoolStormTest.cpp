#include "quendo/cache/CMStatusCache.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/FakeFactory.h"
#include "tests/support/JoinedThreads.h"

#include <malloc.h>

namespace quendo {
namespace {

// Who asks for paths of one root at the same time gets the same folder, and is counted in it.
TEST(PoolStorm, OneFolderForEachRootAtAnyMoment) {
    const unsigned roots = 200;
    const int threads = 64, asks = test::isLong ? 2'000 : 60;
    const test::TemporaryFolder folder;
    const auto top = folder.quendoPath();
    for (unsigned root = 0; root < roots; ++root)
        fs::create_directories(folder.path() / std::to_string(root) / ".fake");
    const auto factory = std::make_shared<test::FakeFactory>();
    platform::Services services;
    services.factorySources = std::make_shared<test::FakeSources>(factory);
    test::JoinedThreads watching; // they end with the last watch
    platform::InotifyFolderWatcherOptions options;
    options.startThread = watching.starter();
    services.folderWatcher = std::make_shared<platform::InotifyFolderWatcher>(options);
    const auto memory = [] {
        const auto info = ::mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    const auto storm = [&] {
        const auto provider = createNewManagedFolderProviderInstance(services);
        std::mutex mutex;
        std::vector<std::map<std::string, int>> live(roots); // by UUID; guarded by it
        std::atomic<int> made = 0, released = 0;
        provider->connectFolderMade([&](const auto&) { ++made; });
        provider->connectFolderReleased([&](const Path&) { ++released; });
        test::onThreads(threads, [&](int thread) {
            std::mt19937 random(static_cast<unsigned>(thread) + 1);
            const auto below = [&](unsigned limit) {
                return static_cast<unsigned>(random() % limit);
            };
            struct Held {
                unsigned root;
                std::string client;
                std::shared_ptr<ManagedFolder> folder;
            };
            std::vector<Held> mine;
            const auto letGo = [&](unsigned which) {
                auto& one = mine[which];
                {
                    const std::lock_guard lock(mutex);
                    if (--live[one.root][one.folder->getUUID()] == 0)
                        live[one.root].erase(one.folder->getUUID());
                }
                EXPECT_GE(one.folder->getClients().at(one.client), 1U);
                mine.erase(mine.begin() + which);
            };
            for (int i = 0; i < asks; ++i) {
                // Some roots are asked for by all, so that requests meet.
                const unsigned root = below(4) == 0 ? below(3) : below(roots);
                const auto client = "client " + std::to_string(below(300));
                const auto path =
                    top.child(std::to_string(root) + "/d/" + std::to_string(below(50)));
                auto got = provider->provideFor(path, client);
                EXPECT_EQ(got->getRootFolder(), top.child(std::to_string(root)));
                {
                    const std::lock_guard lock(mutex);
                    ++live[root][got->getUUID()];
                    EXPECT_EQ(live[root].size(), 1U) << "two folders of one root";
                }
                if (below(20) == 0)
                    got->getCache().refreshFolder(got->getRootFolder());
                mine.push_back({root, client, std::move(got)});
                while (mine.size() > 5 || (!mine.empty() && below(3) == 0))
                    letGo(below(static_cast<unsigned>(mine.size())));
            }
            while (!mine.empty())
                letGo(0);
        });
        EXPECT_TRUE(provider->getManagedFolders().empty());
        EXPECT_EQ(made, released);
        std::printf("%d folders were made for %d requests\n", made.load(), threads * asks);
    };
    const auto before = test::held();
    storm();
    watching.join();
    EXPECT_EQ(test::held(), before);
    const auto used = memory();
    storm();
    watching.join();
    // A kilobyte for each folder that was made would be more. Sanitizers count by themselves.
    EXPECT_LT(memory(), used + (1U << 20U));
}

} // namespace
} // namespace quendo
