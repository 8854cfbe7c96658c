#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/management/IgnoreFiles.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/pool/FindInterface.h"
#include "quendo/pool/FolderDump.h"
#include "quendo/pool/PooledManagedFolder.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedDetection.h"

namespace quendo {
namespace {

/// A folder over an adapter without a disk; strands and events as the test says.
class PooledFolderTest : public testing::Test {
protected:
    PooledFolderTest() {
        fs::create_directory(temporary.path() / "copy");
        fs::create_directory(temporary.path() / "copy/.fake");
        copy->set(at("a"), LocalStatus::Modified);
        copy->inCall = [this](const std::string& name, const auto&) {
            const bool isQuery = name == "files" || name.starts_with("folder");
            if (name == refused || (isQuery && failing))
                throw exception::OperationFailedError("refused");
            if (isQuery)
                return;
            if (name == "ignoreFiles") { // what an own operation writes is no external change
                EXPECT_TRUE(getSourceControlExecutor()->isRunningInThisThread());
                test::writeFile(temporary.path() / "copy/.fake/index", "");
            }
            if (name == "uncheckout")
                test::writeFile(temporary.path() / "copy/foreign", "");
            copy->set(at("a"), LocalStatus::Added);
            copy->set(at("b"), LocalStatus::Added);
        };
        folder->getCache().setFolderStatusFlag(true);
        folder->getCache().refreshFolder(root);
        while (!run().empty()) { // what was made just now is asked for once more
        }
    }

    Path at(const std::string& name) const { return root.child(name); }
    /// @return what the adapter was asked
    std::vector<std::string> run() {
        detection.endWindows();
        return copy->takeCalls();
    }

    const test::TemporaryFolder temporary;
    const Path root = temporary.quendoPath().child("copy");
    test::SteppedDetection detection;
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(root);
    std::string refused;
    bool failing = false;
    std::unique_ptr<PooledManagedFolder> folder =
        std::make_unique<PooledManagedFolder>(test::makeMemoryAdapter(copy), u"Fake", "fake",
                                              std::make_shared<CMApplicationInteractor>());
};

TEST_F(PooledFolderTest, SeesTheFilesOfItsOperations) {
    // Waiting listeners wait for the cache's strand, so the operations run on another thread.
    auto& adapter = folder->getAdapter();
    const auto during = [&](auto operation) {
        bool ended = false;
        auto done = test::onThread([&, strand = createStrandExecutor("end")] {
            const scope_guard end([&] { strand->post([&] { ended = true; }); });
            operation();
        });
        while (!ended && detection.awaitTask())
            detection.endWindows();
        test::within(std::move(done));
        return run();
    };
    EXPECT_THAT(during([&] {
                    adapter.addFiles({at("b"), at("a")});
                }),
                ElementsAre("addFiles b a", "files b a"));
    EXPECT_EQ(folder->getCache().getCachedStatus(at("b"))->getState(), LocalStatus::Added);
    EXPECT_THAT(during([&] { adapter.checkin(std::vector{at("b")}, u"m"); }),
                ElementsAre("checkins b m", "folder+ ."));
    EXPECT_THAT(during([&] { adapter.uncheckout({at("b")}); }),
                testing::Contains(HasSubstr("foreign")))
        << "what others write meanwhile";
    fs::create_directory(temporary.path() / "copy/d");
    EXPECT_THAT(during([&] { adapter.moveFile(at("d"), at("e")); }),
                testing::IsSupersetOf({"folder+ d", "folder+ e"}));
    EXPECT_THAT(during([&] {
                    management::ignoreFiles({at("b"), at("d"), at("x")}, *folder);
                }),
                ElementsAre("ignoreFiles b d x", "folder+ d", "files b x .metadata"));
    for (const bool isIgnoring : {false, true}) {
        detection.whileQueued(
            [&] { test::writeFile(temporary.path() / "copy/.fake/index", "external"); });
        EXPECT_THAT(during([&] {
                        isIgnoring ? management::ignoreFiles({at("b")}, *folder)
                                   : adapter.addFiles({at("b")});
                    }),
                    testing::Contains("folder+ ."))
            << "what others change while it waits";
    }
    const test::LogCapture log;
    failing = true; // what cannot be refreshed is no failure of the operation, and is retried
    EXPECT_THAT(during([&] { adapter.addFiles({at("b")}); }),
                testing::IsSupersetOf({"addFiles b", "files b"}));
    EXPECT_GE(log.count("Exception caught: "), 1U);
    failing = false;
    refused = "addFiles";
    run();
    EXPECT_THROW(adapter.addFiles({at("b")}), exception::OperationFailedError);
    EXPECT_THAT(run(), ElementsAre("addFiles b"));
}

TEST_F(PooledFolderTest, MayGoWhileIgnoredFilesAreAnnounced) {
    fs::create_directory(temporary.path() / "copy/d");
    findInterface<EventBroadcastingCMAdapter>(*folder)->addFolderStatusListener(
        [this](const auto&) { folder.reset(); });
    management::ignoreFiles({at("d"), at("b")}, *folder);
    EXPECT_THAT(run(), ElementsAre("ignoreFiles d b")) << "nobody is left to be told";
}

TEST_F(PooledFolderTest, DescribesItselfForReports) {
    folder->addClient("ide");
    failing = true;
    folder->getCache().refreshFolder(root);
    run();
    EXPECT_THAT(describe(*folder),
                testing::MatchesRegex("root: .*/copy\nsystem: Fake\nsystem id: fake\nUUID: .*\n"
                                      "client: ide 1\n"
                                      "watch of the root: native\nwatch of the metadata: native\n"
                                      "folder status flag: on\n"
                                      "entries: 1 in 1 folders: 1 Modified\n"
                                      "freshness of the root: answered .* s ago, to be retried\n"
                                      "newest refresh failed: refused.*\n(.*\n)*watches: .*\n"
                                      "(.*\n)*last events:\n(.*\n)*"));
}

TEST_F(PooledFolderTest, TracesPublicOperationsOfItsLayers) {
    const test::LogCapture log;
    folder->disable();
    folder->getStatusTrigger().trigger();
    folder->getAdapter().getStatus({at("a")});
    folder.reset();
    run();
    std::map<std::pair<std::string, std::string>, int> open; ///< entered and not left
    for (const auto& [severity, source, function, line, message] : log.records())
        if (message == "enter" || message == "leave") {
            EXPECT_EQ(severity, 2);
            EXPECT_GT(line, 0);
            open[{source, function}] += message == "enter" ? 1 : -1;
        }
    EXPECT_THAT(open, testing::Each(testing::Field(&decltype(open)::value_type::second, 0)));
    const auto has = [&](const char* source, const char* function) {
        EXPECT_THAT(open, testing::Contains(Pair(Pair(source, HasSubstr(function)), 0)));
    };
    has("pool/PooledManagedFolder", "virtual quendo::PooledManagedFolder::~PooledManagedFolder()");
    has("pool/PooledManagedFolder", " quendo::PooledManagedFolder::disable()");
    has("cache/VFSFileChangeCacheUpdater", " quendo::VFSFileChangeCacheUpdater::disable()");
    has("cache/JobCombiningCMStatusCache", " quendo::JobCombiningCMStatusCache::refreshFolder(");
    has("change_detection/ExternalChangeDetectingCMAdapter",
        "ExternalChangeDetectingCMAdapter::getStatus(const std::vector<quendo::Path>&) const");
    has("change_detection/UpdateResponses", "quendo::nonBlockingFullUpdateResponse(");
}

} // namespace
} // namespace quendo
