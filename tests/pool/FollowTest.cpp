#include "quendo/factory/InjectedCMAdapterFactories.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/OwnNamespaces.h"
#include "tests/support/RandomWork.h"
#include "tests/support/RealFolder.h"
#include "tests/support/States.h"
#include "tests/support/SteppedDetection.h"

#include <sys/stat.h>

namespace quendo {
namespace {

/// A managed folder over a real Git working copy, by real events. All it does runs on the test's
/// thread, when the test says so.
struct SteppedFolder {
    explicit SteppedFolder(const test::GitSandbox& sandbox,
                           std::shared_ptr<platform::FolderWatcher> watcher = nullptr)
        : detection(std::move(watcher)),
          followed(provider->provideFor(Path::fromNative(sandbox.work().native()))) {
        followed.cache.refreshFolder(followed.root);
        settle();
    }
    /// All that has happened was answered.
    void settle() {
        for (int quiet = 0, before = 0; quiet < 2; before = queries)
            quiet = detection.endWindows() != 0 || queries != before ? 0 : quiet + 1;
    }

    int queries = 0;
    const std::shared_ptr<test::HookedGitFactory> factory = [this] {
        auto made = std::make_shared<test::HookedGitFactory>();
        made->inQuery = [this] { ++queries; };
        return made;
    }();
    const scope_guard remove{getInjectedCMAdapterFactoriesInstance().inject(factory)};
    test::SteppedDetection detection;
    const std::unique_ptr<ManagedFolderProvider> provider =
        createNewManagedFolderProviderInstance();
    const test::FollowedFolder followed;
};

/// What is cached beside what a fresh query says, when all that has happened was answered. What is
/// found by looking from time to time is waited for.
std::string differencesInTheEnd(SteppedFolder& folder, bool isPolled) {
    for (;;) {
        folder.settle();
        auto text = test::differences(folder.followed.cached(), folder.followed.asked());
        if (text.empty() || !isPolled || !folder.detection.awaitTask())
            return text;
    }
}

struct Length {
    unsigned from, to, operations;
};

/// QUENDO_SEED=number runs that one alone.
Length lengthOf(unsigned shard, unsigned shards) {
    if (const char* seed = std::getenv("QUENDO_SEED"))
        return {static_cast<unsigned>(std::atoi(seed)), static_cast<unsigned>(std::atoi(seed)) + 1,
                200};
    if (!test::isLong)
        return {shard + 1, shard + 2, 40};
    const unsigned seeds = 200 / shards;
    return {shard * seeds + 1, (shard + 1) * seeds + 1, 200};
}

struct Means {
    std::function<std::shared_ptr<platform::FolderWatcher>()> makeWatcher = [] { return nullptr; };
    bool isPolled = false;
    /// Called with what works in the folder.
    std::function<void(const std::filesystem::path&, const std::function<void()>&)> around =
        [](const auto&, const auto& work) { work(); };
};

/// Whenever things pause, the cache is what a fresh query says.
void follow(const Length& length, const Means& means) {
    for (unsigned seed = length.from; seed < length.to; ++seed) {
        test::GitSandbox sandbox;
        sandbox.enterEnvironment();
        sandbox.init();
        test::RandomWork work(sandbox, seed);
        work.act(30);
        SteppedFolder folder(sandbox, means.makeWatcher());
        for (unsigned done = 0; done < length.operations;) {
            const unsigned count = 1 + work.below(6);
            std::string script;
            means.around(sandbox.work(), [&] { script += work.act(count); });
            done += count;
            const auto wrong = differencesInTheEnd(folder, means.isPolled);
            if (!wrong.empty()) {
                ADD_FAILURE() << wrong << "seed " << seed << ", after " << done << ":\n" << script;
                break;
            }
        }
        const int before = folder.queries;
        folder.settle();
        EXPECT_TRUE(means.isPolled || folder.queries == before)
            << "seed " << seed << " refreshes itself for ever";
    }
}

class Follow : public testing::TestWithParam<unsigned> {};
class FollowDeathTest : public testing::TestWithParam<std::pair<const char*, int>> {};

TEST_P(Follow, WhatHappens) {
    follow(lengthOf(GetParam(), 4), {});
}
INSTANTIATE_TEST_SUITE_P(Shard, Follow, testing::Range(0U, 4U));

// The reader is held up until the kernel's queue has run over, in the middle of the work.
TEST(FollowLosses, WhatHappensWhileEventsAreLost) {
    const auto gate = std::make_shared<std::mutex>();
    platform::InotifyFolderWatcherOptions options;
    options.beforeRead = [gate] { const std::lock_guard lock(*gate); };
    Means means;
    means.makeWatcher = [&] { return std::make_shared<platform::InotifyFolderWatcher>(options); };
    means.around = [&](const std::filesystem::path& folder, const std::function<void()>& work) {
        const std::lock_guard lock(*gate);
        work();
        for (int i = 0; i < 10'000; ++i) {
            ::mknod((folder / "x").c_str(), S_IFREG, 0);
            ::unlink((folder / "x").c_str());
        }
        work();
    };
    auto length = lengthOf(0, 10);
    length.operations = std::min(length.operations / 2, 100U); // each pause is 20,000 events
    follow(length, means);
}

TEST_P(FollowDeathTest, WhatHappensWhereWatchesAreFew) {
    test::expectSuccessInOwnNamespaces([&] {
        const auto& [what, most] = GetParam();
        test::limitInotify(what, most);
        Means means;
        means.makeWatcher = [&] { return std::make_shared<platform::InotifyFolderWatcher>(); };
        means.isPolled = true;
        follow(lengthOf(0, 10), means);
    });
}
INSTANTIATE_TEST_SUITE_P(Limit, FollowDeathTest,
                         testing::Values(std::pair("watches", 64), std::pair("watches", 8),
                                         std::pair("instances", 0)));

} // namespace
} // namespace quendo
