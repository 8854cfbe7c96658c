#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/cache/BranchStateCache.h"
#include "quendo/exception/ErrorText.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedDetection.h"

namespace quendo {
namespace {

struct BranchAdapter : CMAdapterDecorator, BranchInformation {
    BranchAdapter()
        : CMAdapterDecorator(
              test::makeMemoryAdapter(std::make_shared<test::MemoryWorkingCopy>(Path(u"/root")))) {}
    std::any getSubsystem(const std::type_info& type) override {
        return type == typeid(BranchInformation) ? static_cast<BranchInformation*>(this)
                                                 : std::any();
    }
    BranchState getBranchState() const override {
        ++reads;
        std::exchange(inRead, [] {})();
        if (!error.empty())
            throw std::runtime_error(error);
        BranchState state;
        state.branch = branch;
        return state;
    }
    mutable int reads = 0;
    UString branch = u"main";
    std::string error;
    mutable std::function<void()> inRead = [] {}; ///< in the next one
};

struct SteppedServices : platform::ExecutorService, platform::DelayedTaskService {
    std::shared_ptr<Executor> getSourceControlExecutor() override { return strand; }
    std::shared_ptr<Executor> createStrandExecutor(const std::string&) override { return strand; }
    void runAfter(std::chrono::milliseconds delay, UniqueFunction<void()> task) override {
        delays.push_back(delay.count());
        due.push_back(std::move(task));
    }
    void run() {
        while (strand->runOne()) {
        }
    }
    void wake() {
        auto task = std::move(due.front());
        due.pop_front();
        task();
        run();
    }
    const std::shared_ptr<test::SteppedExecutor> strand =
        std::make_shared<test::SteppedExecutor>("test");
    std::vector<long> delays;
    std::list<UniqueFunction<void()>> due;
};

struct BranchStateTest : testing::Test {
    std::string known() {
        const auto cached = cache->getBranchState();
        std::string text = cached.state ? toUtf8(cached.state->branch) : "?";
        if (cached.error != nullptr)
            text += " " + exception::errorText(cached.error);
        return text + (cached.isRefreshing ? " ..." : "");
    }

    const std::shared_ptr<SteppedServices> services = std::make_shared<SteppedServices>();
    const platform::ScopedServices scoped{[this] {
        platform::Services bundle;
        bundle.executors = services;
        bundle.delayedTasks = services;
        return bundle;
    }()};
    std::shared_ptr<BranchAdapter> adapter = std::make_shared<BranchAdapter>();
    std::unique_ptr<BranchStateCache> cache = createBranchStateCache(adapter);
};

TEST_F(BranchStateTest, ReadsOnceItIsUsedAndOnceForAllChangesDuringARead) {
    cache->refresh();
    EXPECT_EQ(services->strand->size(), 0U);
    EXPECT_EQ(known(), "? ...");
    services->run();
    EXPECT_EQ(known(), "main");
    int told = 0;
    cache->connectChanged([&](const CachedBranchState&) { ++told; });
    cache->refresh();
    services->run();
    EXPECT_EQ(adapter->reads, 2);
    EXPECT_EQ(told, 0) << "it is the same";
    adapter->inRead = [&] {
        for (int i = 0; i < 9; ++i)
            cache->refresh();
        EXPECT_EQ(known(), "main ...");
    };
    adapter->branch = u"topic";
    cache->refresh();
    cache->refresh();
    services->run();
    EXPECT_EQ(known(), "topic");
    EXPECT_EQ(adapter->reads, 4);
    EXPECT_EQ(told, 1);

    services->strand->refuse(true); // no thread
    cache->refresh();
    EXPECT_THAT(known(), testing::StartsWith("topic no thread"));
    services->strand->refuse(false);
    EXPECT_THAT(known(), testing::EndsWith(" ...")) << "the next use tries again";
    adapter->inRead = [&] { adapter.reset(); };
    adapter->branch = u"late";
    cache->connectChanged([&](const CachedBranchState&) { cache.reset(); });
    cache->refresh();
    services->run();
    EXPECT_EQ(cache, nullptr) << "may end in its own slot, and the adapter in its own read";
    EXPECT_EQ(createBranchStateCache(test::makeMemoryAdapter(
                  std::make_shared<test::MemoryWorkingCopy>(Path(u"/root")))),
              nullptr);
}

TEST_F(BranchStateTest, TellsFailuresAndRetriesMoreAndMoreSeldom) {
    adapter->error = "locked";
    int told = 0;
    cache->connectChanged([&](const CachedBranchState&) { ++told; });
    services->run();
    EXPECT_EQ(known(), "? locked");
    EXPECT_EQ(services->strand->size(), 0U) << "a use does not retry";
    for (int i = 0; i < 7; ++i)
        services->wake();
    EXPECT_EQ(services->delays,
              (std::vector<long>{1'000, 2'000, 4'000, 8'000, 16'000, 32'000, 60'000, 60'000}));
    EXPECT_EQ(told, 1);
    cache->refresh(); // a change does, beside the timer
    adapter->error.clear();
    services->run();
    EXPECT_EQ(known(), "main");
    services->wake();
    EXPECT_EQ(adapter->reads, 9);
    adapter->error = "again";
    cache->refresh();
    services->run();
    EXPECT_EQ(known(), "main again");
    EXPECT_EQ(services->delays.back(), 1'000);
    EXPECT_EQ(told, 3);
    adapter->inRead = [&] { // a change during a read that fails, which corrects it
        cache->refresh();
        adapter->inRead = [&] { adapter->error.clear(); };
    };
    cache->refresh();
    services->run();
    EXPECT_EQ(known(), "main");
}

} // namespace
} // namespace quendo
