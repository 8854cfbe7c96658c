#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/EventBroadcastingCMAdapter.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/Executor.h"
#include "tests/support/Deadline.h"
#include "tests/support/ScriptedAdapter.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

namespace quendo {
namespace {

using testing::ElementsAre;

/// Calls back for every operation that the layers change; does nothing else.
class Probe : public CMAdapterDecorator {
public:
    Probe(std::unique_ptr<CMAdapter> adapter, std::function<void(const std::string&)> called)
        : CMAdapterDecorator(std::move(adapter)), m_called(std::move(called)) {}

    void checkin(const Path&, const UString&) const override { m_called("checkin"); }
    void checkin(const std::vector<Path>&, const UString&) const override { m_called("checkins"); }
    void addFiles(const std::vector<Path>&) const override { m_called("add"); }
    void removeFiles(const std::vector<Path>&) const override { m_called("remove"); }
    void moveFile(const Path& from, const Path& to) const override {
        m_called("move");
        std::filesystem::rename(from.toNative(), to.toNative());
    }
    void uncheckout(const std::vector<Path>&) const override { m_called("uncheckout"); }
    void discardChanges() const override { m_called("discard"); }
    void checkout(const std::vector<Path>&) const override { m_called("checkout"); }
    void resolveConflict(const Path&) const override { m_called("resolve"); }
    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override {
        m_called("statuses");
        return CMAdapterDecorator::getStatus(files);
    }
    std::map<Path, FileState> getStatus(const Path& path, bool flag) const override {
        m_called("status");
        return CMAdapterDecorator::getStatus(path, flag);
    }
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
    std::function<void(const std::string&)> m_called;
};

class LayersTest : public testing::Test {
protected:
    std::unique_ptr<CMAdapter> probe(std::function<void(const std::string&)> called) {
        test::writeFile(folder.path() / ".fake/format", "1");
        return std::make_unique<Probe>(
            test::ScriptedAdapterFactory().createAdapter(
                folder.quendoPath(), std::make_shared<CMApplicationInteractor>()),
            std::move(called));
    }

    test::TemporaryFolder folder;
    const Path file = folder.quendoPath() / u"file";
    const Path other = folder.quendoPath() / u"other";
    const std::vector<Path> files{file, other};
};

TEST_F(LayersTest, OneThreadRunsWhatTouchesTheWorkingCopyAndNothingElse) {
    const auto executor = createStrandExecutor("test");
    std::string queued, direct;
    SingleThreadedCMAdapter adapter(executor, probe([&](const std::string& name) {
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
    EXPECT_EQ(queued, "checkin checkins add remove move uncheckout resolve statuses status list ");
    EXPECT_EQ(direct, "discard checkout current ");
    EXPECT_THROW(executor->runSyncTask([&] { adapter.addFiles(files); }), ExecutorDeadlockError);

    // What the caller works for goes along: the query of a cancelled refresh does not begin.
    const auto origin = std::make_shared<QueryOrigin>();
    origin->cancel();
    const QueryOrigin::WorkScope scope(origin);
    EXPECT_THROW(adapter.getStatus({other}), exception::OperationCancelledError);
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
    EXPECT_THAT(told([&] { adapter.addFiles(files); }), ElementsAre("add", "files file other"));
    EXPECT_THAT(told([&] { adapter.addFiles({}); }), ElementsAre("add", "files"));
    EXPECT_THAT(told([&] { adapter.removeFiles({file}); }), ElementsAre("remove", "files file"));
    EXPECT_THAT(told([&] { adapter.uncheckout({file}); }), ElementsAre("uncheckout", "files file"));
    EXPECT_THAT(told([&] { adapter.checkout({file}); }), ElementsAre("checkout", "files file"));
    EXPECT_THAT(told([&] { adapter.resolveConflict(file); }), ElementsAre("resolve", "files file"));
    EXPECT_THAT(told([&] { adapter.discardChanges(); }), ElementsAre("discard"));
    EXPECT_THAT(told([&] { adapter.getStatus(files); }), ElementsAre("statuses"));

    // What the source is is asked before it has gone; a link to a folder counts as one.
    test::writeFile(file.toNative(), "");
    EXPECT_THAT(told([&] { adapter.moveFile(file, other); }),
                ElementsAre("move", "files file other"));
    std::filesystem::remove(other.toNative());
    std::filesystem::create_directory(file.toNative());
    EXPECT_THAT(told([&] { adapter.moveFile(file, other); }),
                ElementsAre("move", "folders file other"));

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
                ElementsAre("add"));
}

} // namespace
} // namespace quendo
