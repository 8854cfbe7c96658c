#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/cache/VFSFileChangeCacheUpdater.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/HookedAdapter.h"
#include "tests/support/OwnNamespaces.h"
#include "tests/support/RandomWork.h"
#include "tests/support/States.h"
#include "tests/support/SteppedDetection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

namespace quendo {
namespace {

/// A cache that follows a real Git working copy by real events. All it does runs on the test's
/// thread, when the test says so.
class FollowedCopy {
public:
    FollowedCopy(const test::GitSandbox& sandbox, std::shared_ptr<platform::FolderWatcher> watcher)
        : m_detection(std::move(watcher)), m_root(Path::fromNative(sandbox.work().native())),
          m_adapter(makeExternalChangeDetectingCMAdapter(
              std::make_unique<test::HookedAdapter>(
                  git::GitAdapterFactory().createAdapter(m_root, m_interactor),
                  [this](const test::Query&) { ++queries; }),
              m_interactor)),
          m_cache(createJobCombiningCache(m_adapter, m_interactor)) {
        m_cache->setFolderStatusFlag(true);
        m_interactor->getStatusDispatcher().connect(nonBlockingFullUpdateResponse(m_cache, m_root));
        m_updater.emplace(m_cache, *m_adapter);
        m_cache->refreshFolder(m_root);
        settle();
    }

    /// What is cached beside what a fresh query says, when all that has happened was answered. What
    /// is found by looking from time to time is waited for.
    std::string differencesInTheEnd(bool isPolled) {
        for (;;) {
            settle();
            auto text = test::differences(cached(), m_adapter->getStatus(m_root, true));
            if (text.empty() || !isPolled || !m_detection.awaitTask())
                return text;
        }
    }
    void expectQuiet(unsigned seed) {
        const int before = queries;
        settle();
        EXPECT_EQ(queries, before) << "seed " << seed << " refreshes itself for ever";
    }

    int queries = 0;

private:
    void settle() {
        for (int quiet = 0; quiet < 2; ++quiet) {
            const int before = queries;
            if (m_detection.endWindows() != 0 || queries != before)
                quiet = -1;
        }
    }

    std::map<Path, FileState> cached() const {
        std::map<Path, FileState> states;
        for (const auto& path : m_cache->getCachedFiles())
            states.emplace(path, m_cache->getCachedStatus(path).value());
        return states;
    }

    test::SteppedDetection m_detection;
    const Path m_root;
    const std::shared_ptr<CMApplicationInteractor> m_interactor =
        std::make_shared<CMApplicationInteractor>();
    const std::shared_ptr<CMAdapter> m_adapter;
    const std::shared_ptr<CMStatusCache> m_cache;
    std::optional<VFSFileChangeCacheUpdater> m_updater;
};

struct Length {
    unsigned from, to, operations;
};

/// QUENDO_SEED=number runs that one alone.
Length lengthOf(unsigned shard, unsigned shards) {
    if (const char* seed = std::getenv("QUENDO_SEED"))
        return {static_cast<unsigned>(std::atoi(seed)), static_cast<unsigned>(std::atoi(seed)) + 1,
                200};
    if (std::getenv("QUENDO_LONG") == nullptr)
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
    std::chrono::duration<double> longest{};
    std::string slowest;
    for (unsigned seed = length.from; seed < length.to; ++seed) {
        test::GitSandbox sandbox;
        sandbox.enterEnvironment();
        sandbox.init();
        test::RandomWork work(sandbox, seed);
        work.act(30);
        FollowedCopy followed(sandbox, means.makeWatcher());
        for (unsigned done = 0; done < length.operations;) {
            const unsigned count = 1 + work.below(6);
            std::string script;
            means.around(sandbox.work(), [&] { script += work.act(count); });
            done += count;
            const auto start = std::chrono::steady_clock::now();
            const auto wrong = followed.differencesInTheEnd(means.isPolled);
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
            if (took > longest) {
                longest = took;
                slowest = "seed " + std::to_string(seed) + ", after " + std::to_string(done);
            }
            if (!wrong.empty()) {
                ADD_FAILURE() << wrong << "seed " << seed << ", after " << done << ":\n" << script;
                break;
            }
        }
        if (!means.isPolled)
            followed.expectQuiet(seed);
    }
    std::printf("seeds %u to %u, longest time to be right again: %.2f s, %s\n", length.from,
                length.to - 1, longest.count(), slowest.c_str());
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
