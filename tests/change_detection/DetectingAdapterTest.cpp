#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "tests/support/FakeFolderWatcher.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedDetection.h"

namespace quendo {
namespace {

class DetectingAdapterTest : public testing::Test {
protected:
    /// An adapter with a file and `called` in its operations; `root`/.fake is its metadata folder.
    void makeAdapter(std::function<void()> called) {
        fs::create_directories(metadata);
        copy->set(files[0], LocalStatus::Modified);
        copy->inCall = [called = std::move(called)](const auto&...) { called(); };
        adapter = makeExternalChangeDetectingCMAdapter(test::makeMemoryAdapter(copy), interactor);
        interactor->getStatusDispatcher().connect([this] { ++triggers; });
    }
    int triggered() {
        detection->endWindows();
        return std::exchange(triggers, 0);
    }

    test::TemporaryFolder folder;
    const Path root = folder.quendoPath();
    const fs::path metadata = folder.path() / ".fake";
    const std::vector<Path> files{root / u"file"};
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(root);
    const std::shared_ptr<CMApplicationInteractor> interactor =
        std::make_shared<CMApplicationInteractor>();
    int triggers = 0;
    std::optional<test::SteppedDetection> detection;
    std::unique_ptr<CMAdapter> adapter;
};

TEST_F(DetectingAdapterTest, DisregardsItsOwnOperationsOnly) {
    const auto watcher = std::make_shared<test::FakeFolderWatcher>();
    detection.emplace(watcher);
    bool fails = false;
    const auto change = [&] {
        watcher->tell(platform::FolderEvent::Kind::Changed, root / u".fake/index");
        if (fails)
            throw std::out_of_range("mine");
    };
    makeAdapter(change);
    const std::vector<std::function<void()>> own{
        [&] { adapter->checkin(root, u""); },   [&] { adapter->checkin(files, u""); },
        [&] { adapter->addFiles(files); },      [&] { adapter->removeFiles(files); },
        [&] { adapter->moveFile(root, root); }, [&] { adapter->uncheckout(files); },
        [&] { adapter->checkout(files); },      [&] { adapter->resolveConflict(root); },
    };
    for (std::size_t i = 0; i < own.size(); ++i) {
        own[i]();
        EXPECT_EQ(triggered(), 0) << i;
        fails = true;
        EXPECT_THROW(own[i](), std::out_of_range);
        fails = false;
        EXPECT_EQ(triggered(), 0) << i;
        change();
        EXPECT_EQ(triggered(), 1) << i;
    }
    adapter->discardChanges();
    EXPECT_EQ(triggered(), 1);
    EXPECT_EQ(adapter->getStatus(files).size(), 1U);
    EXPECT_EQ(triggered(), 1);
    EXPECT_EQ(adapter->getStatus(root, true).size(), 1U);
    EXPECT_EQ(triggered(), 1);

    // The subsystem is the detector itself.
    const auto detector = std::any_cast<FolderExternalChangeDetector*>(
        adapter->getSubsystem(typeid(FolderExternalChangeDetector)));
    EXPECT_FALSE(adapter->getSubsystem(typeid(CMAdapter)).has_value());
    const auto guard = detector->disable();
    change();
    EXPECT_EQ(triggered(), 0);
}

TEST_F(DetectingAdapterTest, TellsRealChangesOfOthers) {
    detection.emplace();
    int runs = 0;
    // Makes a folder, and writes there and where something was.
    makeAdapter([&] {
        test::writeFile(metadata / ("new" + std::to_string(++runs)) / "inner/file", "own");
        test::writeFile(metadata / "index", std::to_string(runs));
    });
    const auto newest = [&] { return metadata / ("new" + std::to_string(runs)) / "inner/file"; };
    EXPECT_EQ(triggered(), 0);
    for (int i = 0; i < 100; ++i) {
        adapter->addFiles(files);
        adapter->addFiles(files);
    }
    EXPECT_EQ(triggered(), 0);
    for (int i = 0; i < 100; ++i) {
        test::writeFile(metadata / "index", "foreign");
        adapter->addFiles(files);
        EXPECT_EQ(triggered(), 1) << "before, " << i;
        adapter->addFiles(files);
        test::writeFile(newest(), "foreign");
        adapter->addFiles(files);
        EXPECT_EQ(triggered(), 1) << "in what was made just now, " << i;
    }
    adapter->discardChanges();
    EXPECT_EQ(triggered(), 1);
}

// What waits, and what its failures come to, is shown where a managed folder uses it.
TEST(UpdateResponses, WaitForNothingThatNobodyNeedsAndLetTheCacheGo) {
    test::SteppedDetection stepped;
    const Path root(u"/r"), a(u"/r/a"), b(u"/r/b");
    const auto copy = std::make_shared<test::MemoryWorkingCopy>(root);
    auto cache = std::make_shared<JobCombiningCMStatusCache>(
        test::makeMemoryAdapter(copy), std::make_shared<CMApplicationInteractor>());
    const auto full = fullUpdateResponse(cache);
    const auto nonBlocking = nonBlockingFullUpdateResponse(cache, a);
    const auto ofFiles = filesUpdateResponse(cache);
    const auto ofFolders = foldersUpdateResponse(cache);
    nonBlocking();
    ofFolders({b, a});
    stepped.runStrands();
    EXPECT_THAT(copy->takeCalls(), ElementsAre("folder a", "folder b", "folder a"));
    const std::weak_ptr<JobCombiningCMStatusCache> lives = cache;
    cache.reset();
    ASSERT_TRUE(lives.expired());
    full();
    nonBlocking();
    ofFiles({a});
    ofFolders({a});
    EXPECT_THAT(copy->takeCalls(), IsEmpty());
}

} // namespace
} // namespace quendo
