#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "tests/support/FakeFolderWatcher.h"
#include "tests/support/HookedAdapter.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedDetection.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

namespace quendo {
namespace {

using testing::ElementsAre;
namespace fs = std::filesystem;

/// Calls back for every operation that changes something, and for status queries.
class Probe : public CMAdapterDecorator {
public:
    Probe(const Path& root, std::function<void()> called)
        : CMAdapterDecorator(
              test::makeMemoryAdapter(std::make_shared<test::MemoryWorkingCopy>(root))),
          m_called(std::move(called)) {}

    void checkin(const Path&, const UString&) const override { m_called(); }
    void checkin(const std::vector<Path>&, const UString&) const override { m_called(); }
    void addFiles(const std::vector<Path>&) const override { m_called(); }
    void removeFiles(const std::vector<Path>&) const override { m_called(); }
    void moveFile(const Path&, const Path&) const override { m_called(); }
    void uncheckout(const std::vector<Path>&) const override { m_called(); }
    void discardChanges() const override { m_called(); }
    void checkout(const std::vector<Path>&) const override { m_called(); }
    void resolveConflict(const Path&) const override { m_called(); }
    std::map<Path, FileState> getStatus(const std::vector<Path>&) const override {
        m_called();
        return {{Path(u"/answer"), FileState(LocalStatus::Modified, false, {})}};
    }
    std::map<Path, FileState> getStatus(const Path&, bool) const override {
        m_called();
        return {{Path(u"/answer"), FileState(LocalStatus::Modified, false, {})}};
    }

private:
    const std::function<void()> m_called;
};

class DetectingAdapterTest : public testing::Test {
protected:
    /// An adapter with `called` in its operations; `root`/.fake is its metadata folder.
    void makeAdapter(std::function<void()> called) {
        fs::create_directories(metadata);
        adapter = makeExternalChangeDetectingCMAdapter(
            std::make_unique<Probe>(root, std::move(called)), interactor);
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
    const test::LogCapture log;
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
    EXPECT_EQ(log.count("Adding "), 2U);
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

    EXPECT_THROW(makeExternalChangeDetectingCMAdapter(nullptr, interactor), std::invalid_argument);
    EXPECT_THROW(
        makeExternalChangeDetectingCMAdapter(std::make_unique<Probe>(root, change), nullptr),
        std::invalid_argument);
}

TEST_F(DetectingAdapterTest, TellsRealChangesOfOthers) {
    platform::InotifyFolderWatcherOptions options;
    options.pollInterval = std::chrono::milliseconds(1);
    detection.emplace(std::make_shared<platform::InotifyFolderWatcher>(options));
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

    for (int i = 0; i < 20'000; ++i)
        test::writeFile(metadata / ("burst" + std::to_string(i % 20)) / std::to_string(i), "");
    EXPECT_EQ(triggered(), 1);
    test::writeFile(metadata / "burst19/0", "");
    EXPECT_EQ(triggered(), 1);

    // It goes and comes back, which is found by looking.
    fs::remove_all(metadata);
    EXPECT_EQ(triggered(), 1);
    test::writeFile(folder.path() / "fake/inner/file", "");
    fs::rename(folder.path() / "fake", metadata);
    detection->awaitWindow();
    EXPECT_EQ(triggered(), 1);
    test::writeFile(metadata / "inner/file", "foreign");
    EXPECT_EQ(triggered(), 1);
    adapter.reset();
}

TEST(UpdateResponses, AskTheCacheForWhatTheySayWhileItLives) {
    std::vector<std::string> queries;
    std::function<void()> inQuery = [] {};
    const Path root(u"/r"), a(u"/r/a"), b(u"/r/b");
    auto cache = std::make_shared<JobCombiningCMStatusCache>(
        std::make_shared<test::HookedAdapter>(
            test::makeMemoryAdapter(std::make_shared<test::MemoryWorkingCopy>(root)),
            [&](const test::Query& query) {
                inQuery();
                queries.push_back(query.ofFolder ? "folder" : "files");
                for (const auto& path : query.paths)
                    queries.back() += " " + path.toUtf8();
            }),
        std::make_shared<CMApplicationInteractor>());
    const auto full = fullUpdateResponse(cache);
    const auto nonBlocking = nonBlockingFullUpdateResponse(cache, a);
    const auto ofFiles = filesUpdateResponse(cache);
    const auto ofFolders = foldersUpdateResponse(cache);
    full();
    ofFiles({b, a});
    EXPECT_THAT(queries,
                ElementsAre("folder /r", testing::AnyOf("files /r/a /r/b", "files /r/b /r/a")));

    // The others do not wait for their queries, and folders come in their order.
    queries.clear();
    std::promise<void> go;
    inQuery = [&, gate = go.get_future().share()] { gate.wait(); };
    nonBlocking();
    ofFolders({b, a});
    go.set_value();
    cache->refreshFolder(b)->wait();
    EXPECT_THAT(queries, ElementsAre("folder /r/a", "folder /r/b", "folder /r/a", "folder /r/b"));

    inQuery = [] { throw std::out_of_range("mine"); };
    EXPECT_THROW(ofFiles({a}), std::out_of_range);
    EXPECT_THROW(full(), std::out_of_range);
    inQuery = [] {};
    cache.reset();
    queries.clear();
    full();
    nonBlocking();
    ofFiles({a});
    ofFolders({a});
    EXPECT_THAT(queries, ElementsAre());
}

} // namespace
} // namespace quendo
