#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CacheTask.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/pool/PooledManagedFolder.h"
#include "tests/support/FakeFactory.h"
#include "tests/support/HookedAdapter.h"
#include "tests/support/SteppedDetection.h"
#include "tests/support/Testing.h"

namespace quendo {
namespace {

/// A folder over an adapter without a disk; strands and events as the test says.
class PooledFolderTest : public testing::Test {
protected:
    PooledFolderTest() {
        fs::create_directory(temporary.path() / "copy");
        fs::create_directory(temporary.path() / "copy/.fake");
        copy->set(at("a"), LocalStatus::Modified);
        make();
        folder->getCache().setFolderStatusFlag(true);
        folder->getCache().refreshFolder(root);
        run();
        queries.clear();
    }

    Path at(const std::string& name) const { return root.child(name); }
    void make() {
        auto memory = std::make_unique<test::NotingAdapter>(
            test::makeMemoryAdapter(copy), [this](const std::string& operation, const auto&) {
                if (operation == refused)
                    throw exception::OperationFailedError("refused");
                if (operation == "uncheckout")
                    test::writeFile(temporary.path() / "copy/foreign", "");
                copy->set(at("a"), LocalStatus::Added);
                copy->set(at("b"), LocalStatus::Added);
            });
        auto hooked = std::make_unique<test::HookedAdapter>(
            std::move(memory), [this](const test::Query& query) {
                if (failing)
                    throw exception::OperationFailedError("no answer");
                std::string text = query.ofFolder ? "folder" : "files";
                for (const auto& path : query.paths)
                    text += " " + path.lexicallyRelative(root).toUtf8();
                queries.push_back(text);
            });
        folder = std::make_unique<PooledManagedFolder>(std::move(hooked), u"Fake", "fake",
                                                       std::make_shared<CMApplicationInteractor>());
    }
    /// @return what the adapter was asked
    std::vector<std::string> run() {
        detection.endWindows();
        return std::exchange(queries, {});
    }

    const test::TemporaryFolder temporary;
    const Path root = temporary.quendoPath().child("copy");
    test::SteppedDetection detection;
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(root);
    std::string refused;
    bool failing = false;
    std::vector<std::string> queries;
    std::unique_ptr<PooledManagedFolder> folder;
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
    EXPECT_THAT(during([&] { adapter.addFiles({at("b"), at("a")}); }), ElementsAre("files b a"));
    EXPECT_EQ(folder->getCache().getCachedStatus(at("b"))->getState(), LocalStatus::Added);
    EXPECT_THAT(during([&] { adapter.checkin(std::vector{at("b")}, u"m"); }),
                ElementsAre("folder ."));
    EXPECT_THAT(during([&] { adapter.uncheckout({at("b")}); }),
                testing::Contains(HasSubstr("foreign")))
        << "what others write meanwhile";
    fs::create_directory(temporary.path() / "copy/d");
    EXPECT_THAT(during([&] { adapter.moveFile(at("d"), at("e")); }),
                testing::IsSupersetOf({"folder d", "folder e"}));
    const test::LogCapture log;
    failing = true; // what cannot be refreshed is no failure of the operation
    EXPECT_THAT(during([&] { adapter.addFiles({at("b")}); }), IsEmpty());
    EXPECT_EQ(log.count("Exception caught: "), 1U);
    failing = false;
    refused = "addFiles";
    run();
    EXPECT_THROW(adapter.addFiles({at("b")}), exception::OperationFailedError);
    EXPECT_THAT(run(), IsEmpty());
}

TEST_F(PooledFolderTest, AnswersTriggersAndForeignChangesButNotWhenDisabled) {
    folder->getStatusTrigger().trigger();
    EXPECT_THAT(run(), ElementsAre("folder ."));
    const auto write = [&] {
        test::writeFile(temporary.path() / "copy/a", "1");
        test::writeFile(temporary.path() / "copy/.fake/index", "1");
        auto asked = run();
        const auto later = run(); // what the window brought
        asked.insert(asked.end(), later.begin(), later.end());
        return asked;
    };
    EXPECT_THAT(write(), testing::IsSupersetOf({"files a", "folder ."}));
    auto one = folder->disable(), two = folder->disable();
    EXPECT_THAT(write(), IsEmpty());
    one.reset();
    EXPECT_THAT(write(), testing::IsSupersetOf({"files a", "folder ."}));
    two.reset();
    EXPECT_EQ(&folder->getTerminator(),
              &dynamic_cast<ApplicationInteractor&>(folder->getCMInteractor()).getTerminator());
}

TEST_F(PooledFolderTest, TellsEachTimeThatTheRootGoesAndRecovers) {
    int told = 0;
    folder->connectDeleted([] { throw 1; });
    folder->connectDeleted([&] { ++told; });
    const auto away = temporary.path() / "away";
    for (int times = 1; times <= 3; ++times) {
        fs::rename(root.toNative(), away);
        copy->erase(at("a"));
        run();
        run();
        EXPECT_EQ(told, times);
        EXPECT_EQ(folder->getCache().getCachedStatus(at("a")), std::nullopt);
        copy->set(at("a"), LocalStatus::Modified);
        fs::rename(away, root.toNative());
        run();
        run();
        EXPECT_NE(folder->getCache().getCachedStatus(at("a")), std::nullopt);
        test::writeFile(temporary.path() / "copy/a", "1");
        EXPECT_THAT(run(), testing::Contains("files a"));
    }
    folder.reset();
    fs::rename(root.toNative(), away);
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_EQ(told, 3);
}

} // namespace
} // namespace quendo
