#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/EventBroadcastingCMAdapter.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/Executor.h"
#include "tests/support/HookedAdapter.h"
#include "tests/support/Testing.h"

namespace quendo {
namespace {

using Called = std::function<void(const std::string&)>;

/// Calls back for what the layers change; moves files, and does nothing else.
class Probe : public test::NotingAdapter {
public:
    Probe(std::unique_ptr<CMAdapter> adapter, Called called)
        : NotingAdapter(std::move(adapter),
                        [called](const std::string& operation, const Paths& paths) {
                            called(operation);
                            if (operation == "moveFile")
                                fs::rename(paths[0].toNative(), paths[1].toNative());
                        }),
          m_called(std::move(called)) {}

    std::vector<std::unique_ptr<Revision>>
    listRevisions(const Path&,
                  std::optional<std::reference_wrapper<const Revision>>) const override {
        m_called("list");
        return {};
    }
    std::unique_ptr<Revision> getCurrentRevision(const Path&) const override {
        m_called("current");
        return {};
    }

private:
    const Called m_called;
};

class LayersTest : public testing::Test {
protected:
    std::unique_ptr<CMAdapter> probe(const Called& called) {
        const auto copy = std::make_shared<test::MemoryWorkingCopy>(folder.quendoPath());
        copy->set(other, LocalStatus::NotUnderSourceControl);
        return std::make_unique<Probe>(
            std::make_unique<test::HookedAdapter>(test::makeMemoryAdapter(copy),
                                                  [called](const test::Query& query) {
                                                      called(query.ofFolder ? "folder" : "files");
                                                  }),
            called);
    }

    test::TemporaryFolder folder;
    const Path file = folder.quendoPath() / u"file";
    const Path other = folder.quendoPath() / u"other";
    const std::vector<Path> files{file, other};
};

TEST_F(LayersTest, OneThreadRunsWhatTouchesTheWorkingCopyAndNothingElse) {
    const auto executor = createStrandExecutor("test");
    std::string queued, direct;
    std::shared_ptr<const QueryOrigin> seen;
    SingleThreadedCMAdapter adapter(executor, probe([&](const std::string& name) {
                                        seen = QueryOrigin::current();
                                        (executor->isRunningInThisThread() ? queued : direct) +=
                                            name + " ";
                                    }));
    test::writeFile(file.toNative(), "");
    adapter.checkin(file, u"");
    adapter.checkin(files, u"");
    adapter.addFiles(files);
    adapter.removeFiles(files);
    adapter.moveFile(file, other);
    adapter.uncheckout(files);
    adapter.discardChanges();
    adapter.checkout(files);
    adapter.resolveConflict(file);
    EXPECT_EQ(adapter.getStatus({other}).count(other), 1U);
    EXPECT_EQ(adapter.getStatus(folder.quendoPath(), true).count(other), 1U);
    adapter.listRevisions(file, std::nullopt);
    adapter.getCurrentRevision(file);
    EXPECT_EQ(queued, "checkin checkins addFiles removeFiles moveFile uncheckout "
                      "resolveConflict files folder list ");
    EXPECT_EQ(direct, "discardChanges checkout current ");
    EXPECT_THROW(executor->runSyncTask([&] { adapter.addFiles(files); }), ExecutorDeadlockError);

    // What the caller works for goes along, for the one call.
    const auto origin = std::make_shared<QueryOrigin>();
    const QueryOrigin::WorkScope scope(origin);
    adapter.getStatus({other});
    EXPECT_EQ(seen, origin);
    EXPECT_EQ(executor->runSyncTask([] { return QueryOrigin::current(); }), nullptr);
    EXPECT_THROW(SingleThreadedCMAdapter(nullptr, probe({})), std::invalid_argument);
    EXPECT_THROW(SingleThreadedCMAdapter(executor, nullptr), std::invalid_argument);
}

TEST_F(LayersTest, CallsOfManyThreadsTakeTurnsAcrossAdapters) {
    std::atomic<int> inside = 0, calls = 0;
    std::atomic<bool> overlapped = false;
    const auto executor = createStrandExecutor("test");
    const auto call = [&](const std::string&) {
        overlapped = overlapped || inside.fetch_add(1) != 0;
        ++calls;
        inside.fetch_sub(1);
        throw std::out_of_range("mine");
    };
    SingleThreadedCMAdapter first(executor, probe(call)), second(executor, probe(call));
    std::vector<std::future<void>> threads;
    for (int i = 0; i < 8; ++i)
        threads.push_back(test::onThread([&, i] {
            for (int round = 0; round < 50; ++round)
                EXPECT_THROW((i % 2 ? first : second).addFiles(files), std::out_of_range);
        }));
    for (auto& thread : threads)
        test::within(std::move(thread));
    EXPECT_EQ(calls, 400);
    EXPECT_FALSE(overlapped);
}

TEST_F(LayersTest, TellsWhatWasChangedAfterItSucceeded) {
    std::vector<std::string> events;
    bool fail = false;
    EventBroadcastingCMAdapter adapter(probe([&](const std::string& name) {
        if (fail)
            throw std::out_of_range(name);
        events.push_back(name);
    }));
    const auto note = [&](const std::string& kind) {
        return [&events, kind](const std::vector<Path>& paths) {
            events.push_back(kind);
            for (const auto& path : paths)
                events.back() += " " + path.fileName().toUtf8();
        };
    };
    adapter.addFolderStatusListener(note("folders"));
    const auto connection = adapter.addStatusListener(note("files"));
    adapter.addUpdateListener([&] { events.push_back("update"); });
    const auto told = [&](auto operation) {
        events.clear();
        operation();
        return events;
    };
    EXPECT_THAT(told([&] { adapter.checkin(file, u""); }), ElementsAre("checkin", "update"));
    EXPECT_THAT(told([&] { adapter.checkin(files, u""); }), ElementsAre("checkins", "update"));
    EXPECT_THAT(told([&] { adapter.addFiles(files); }),
                ElementsAre("addFiles", "files file other"));
    EXPECT_THAT(told([&] { adapter.addFiles({}); }), ElementsAre("addFiles", "files"));
    EXPECT_THAT(told([&] { adapter.removeFiles({file}); }),
                ElementsAre("removeFiles", "files file"));
    EXPECT_THAT(told([&] { adapter.uncheckout({file}); }), ElementsAre("uncheckout", "files file"));
    EXPECT_THAT(told([&] { adapter.checkout({file}); }), ElementsAre("checkout", "files file"));
    EXPECT_THAT(told([&] { adapter.resolveConflict(file); }),
                ElementsAre("resolveConflict", "files file"));
    EXPECT_THAT(told([&] { adapter.discardChanges(); }), ElementsAre("discardChanges"));
    EXPECT_THAT(told([&] { adapter.getStatus(files); }), ElementsAre("files"));

    // What the source is is asked before it has gone; a link to a folder counts as one.
    test::writeFile(file.toNative(), "");
    EXPECT_THAT(told([&] { adapter.moveFile(file, other); }),
                ElementsAre("moveFile", "files file other"));
    fs::remove(other.toNative());
    fs::create_directory(file.toNative());
    EXPECT_THAT(told([&] { adapter.moveFile(file, other); }),
                ElementsAre("moveFile", "folders file other"));

    fail = true;
    EXPECT_THAT(told([&] { EXPECT_THROW(adapter.removeFiles(files), std::out_of_range); }),
                ElementsAre());
    // A listener's failure reaches the caller, after the operation and without the listeners
    // behind.
    fail = false;
    connection.disconnect();
    adapter.addStatusListener([](const std::vector<Path>&) { throw std::domain_error("mine"); });
    adapter.addStatusListener(note("behind"));
    EXPECT_THAT(told([&] { EXPECT_THROW(adapter.addFiles(files), std::domain_error); }),
                ElementsAre("addFiles"));
}

} // namespace
} // namespace quendo
