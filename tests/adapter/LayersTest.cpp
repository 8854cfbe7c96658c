#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/EventBroadcastingCMAdapter.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/Executor.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/Testing.h"

namespace quendo {
namespace {

class LayersTest : public testing::Test {
protected:
    LayersTest() { copy->set(other, LocalStatus::NotUnderSourceControl); }

    test::TemporaryFolder folder;
    const Path file = folder.quendoPath() / u"file";
    const Path other = folder.quendoPath() / u"other";
    const std::vector<Path> files{file, other};
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(folder.quendoPath());
};

TEST_F(LayersTest, OneThreadRunsWhatTouchesTheWorkingCopyAndNothingElse) {
    const auto executor = createStrandExecutor("test");
    std::string queued, direct;
    std::shared_ptr<const QueryOrigin> seen;
    copy->inCall = [&](const std::string& name, const auto&) {
        seen = QueryOrigin::current();
        (executor->isRunningInThisThread() ? queued : direct) += name + " ";
    };
    SingleThreadedCMAdapter adapter(executor, test::makeMemoryAdapter(copy));
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
                      "resolveConflict files folder+ listRevisions ");
    EXPECT_EQ(direct, "discardChanges checkout getCurrentRevision ");
    EXPECT_THROW(executor->runSyncTask([&] { adapter.addFiles(files); }), ExecutorDeadlockError);

    // What the caller works for goes along, for the one call.
    const auto origin = std::make_shared<QueryOrigin>();
    const QueryOrigin::WorkScope scope(origin);
    adapter.getStatus({other});
    EXPECT_EQ(seen, origin);
    EXPECT_EQ(executor->runSyncTask([] { return QueryOrigin::current(); }), nullptr);
}

TEST_F(LayersTest, TellsWhatWasChangedAfterItSucceeded) {
    std::vector<std::string> events;
    bool fail = false;
    copy->inCall = [&](const std::string& name, const std::vector<Path>& paths) {
        if (fail)
            throw std::out_of_range(name);
        if (name == "moveFile")
            fs::rename(paths[0].toNative(), paths[1].toNative());
        events.push_back(name);
    };
    EventBroadcastingCMAdapter adapter(test::makeMemoryAdapter(copy));
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
    adapter.checkin(file, u"");
    adapter.checkin(files, u"");
    adapter.addFiles(files);
    adapter.addFiles({});
    adapter.removeFiles({file});
    adapter.uncheckout({file});
    adapter.checkout({file});
    adapter.resolveConflict(file);
    adapter.discardChanges();
    adapter.getStatus(files);
    EXPECT_THAT(events,
                ElementsAre("checkin", "update", "checkins", "update", "addFiles",
                            "files file other", "addFiles", "files", "removeFiles", "files file",
                            "uncheckout", "files file", "checkout", "files file", "resolveConflict",
                            "files file", "discardChanges", "files"));

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
    // A slot that expires during the emission is passed over.
    fail = false;
    connection.disconnect();
    boost::signals2::slot<void(const std::vector<Path>&)> expired(note("expired"));
    expired.track_foreign(std::weak_ptr<void>());
    adapter.addStatusListener([expired](const std::vector<Path>& paths) { expired(paths); });
    const auto next = adapter.addStatusListener(note("next"));
    EXPECT_THAT(told([&] { adapter.addFiles({file}); }), ElementsAre("addFiles", "next file"));
    next.disconnect();
    // A listener's failure reaches the caller, after the operation and without the listeners
    // behind.
    adapter.addStatusListener([](const std::vector<Path>&) { throw std::domain_error("mine"); });
    adapter.addStatusListener(note("behind"));
    EXPECT_THAT(told([&] { EXPECT_THROW(adapter.addFiles(files), std::domain_error); }),
                ElementsAre("addFiles"));
}

/// Destroys what emits a signal in a listener, or on another thread while the listener runs. That
/// disconnects the listeners behind.
template <class Make, class Connect, class Emit>
void destroyDuringEmission(Make make, Connect connect, Emit emit) {
    for (const bool disconnectsOthers : {false, true})
        for (const bool onOtherThread : {false, true}) {
            auto owner = make();
            std::string heard;
            std::vector<boost::signals2::connection> others;
            connect(*owner, [&](const auto&...) {
                heard += "first";
                if (disconnectsOthers)
                    for (const auto& other : others)
                        other.disconnect();
                if (onOtherThread)
                    test::within(test::onThread([&] { owner.reset(); }));
                owner.reset();
            });
            for (int i = 0; i < 3; ++i)
                others.push_back(connect(*owner, [&](const auto&...) { heard += " other"; }));
            emit(*owner);
            EXPECT_EQ(heard, "first");
        }
}

TEST_F(LayersTest, MayBeDestroyedByListeners) {
    const auto broadcaster = [&] {
        return std::make_unique<EventBroadcastingCMAdapter>(test::makeMemoryAdapter(copy));
    };
    destroyDuringEmission(
        broadcaster, [](auto& each, auto slot) { return each.addFolderStatusListener(slot); },
        [](auto& each) { each.dispatchFolderStatusChanged({}); });
    destroyDuringEmission(
        broadcaster, [](auto& each, auto slot) { return each.addStatusListener(slot); },
        [&](auto& each) { each.addFiles(files); });
    destroyDuringEmission(
        broadcaster, [](auto& each, auto slot) { return each.addUpdateListener(slot); },
        [&](auto& each) { each.checkin(file, u""); });
    const auto interactor = [] { return std::make_unique<CMApplicationInteractor>(); };
    destroyDuringEmission(
        interactor, [](auto& each, auto slot) { return each.getTerminator().connect(slot); },
        [](auto& each) { each.getTerminationTrigger().trigger(); });
    destroyDuringEmission(
        interactor, [](auto& each, auto slot) { return each.getStatusDispatcher().connect(slot); },
        [](auto& each) { each.getStatusTrigger().trigger(); });
    destroyDuringEmission(
        interactor,
        [](auto& each, auto slot) { return each.getProgressDispatcher().connect(slot); },
        [](auto& each) { each.getProgressIndicator().report(u"", 0); });
}

} // namespace
} // namespace quendo
