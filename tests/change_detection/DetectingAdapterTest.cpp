#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/OwnWrites.h"
#include "tests/support/FakeFolderWatcher.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/RealFolder.h"
#include "tests/support/SteppedDetection.h"

#include <csignal>
#include <semaphore>
#include <sys/stat.h>

namespace quendo {
namespace {

class DetectingAdapterTest : public testing::Test {
protected:
    /// An adapter with a file and `called` in its operations; `root`/.fake is its metadata folder.
    /// @param executor where they run, if not on the thread of the call
    void makeAdapter(std::function<void()> called, std::shared_ptr<Executor> executor = nullptr) {
        fs::create_directories(metadata);
        copy->set(files[0], LocalStatus::Modified);
        copy->inCall = [called = std::move(called)](const auto&...) { called(); };
        auto raw = test::makeMemoryAdapter(copy);
        if (executor != nullptr)
            raw = std::make_unique<SingleThreadedCMAdapter>(executor, std::move(raw));
        adapter = makeExternalChangeDetectingCMAdapter(std::move(raw), interactor);
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

// An operation waits for its turn, and writes in some of the steps that it takes then.
TEST_F(DetectingAdapterTest, DisregardsWhatIsWrittenAndNotTheTimeAroundIt) {
    using Kind = platform::FolderEvent::Kind;
    const auto watcher = std::make_shared<test::FakeFolderWatcher>();
    detection.emplace(watcher);
    const auto change = [&](Kind kind = Kind::Changed, const char16_t* name = u"index") {
        watcher->tell(kind, root / u".fake" / name);
    };
    const Path index = root / u".fake/index";
    const OwnWrites::Footprint ofIndex{[&](const Path& path) { return path == index; }, index};
    const auto refine = [] { OwnWrites::current()->refine(); };
    std::function<void()> waits, runs;
    std::shared_ptr<test::SteppedExecutor> executor =
        std::make_shared<test::SteppedExecutor>("SourceControl", [&] {
            waits();
            executor->runOne();
        });
    makeAdapter([&] { runs(); }, executor);
    const std::function<void()> nothing = [] {}, once = [&] { change(); };
    struct Case {
        const char* what;
        std::function<void()> before, waits, runs, after;
        int triggers;
    };
    const std::vector<Case> cases{
        {"before", once, nothing, nothing, nothing, 1},
        {"while it waits", nothing, once, nothing, nothing, 1},
        {"own", nothing, nothing, once, nothing, 0},
        {"after", nothing, nothing, nothing, once, 1},
        {"each with its own", once, once, once, once, 1},
        {"before the steps", nothing, nothing, [&] { change(), refine(); }, nothing, 1},
        {"between the steps", nothing, nothing, [&] { refine(), change(); }, nothing, 1},
        {"in a step", nothing, nothing,
         [&] {
             refine();
             const OwnWrites::Span span;
             change();
         },
         nothing, 0},
        {"in a step that fails", nothing, nothing,
         [&] {
             refine();
             OwnWrites::Span span;
             change();
             span.fail();
         },
         nothing, 1},
        {"of a footprint", nothing, nothing,
         [&] {
             refine();
             const OwnWrites::Span span(ofIndex);
             change(Kind::Appeared);
             change();
         },
         nothing, 0},
        {"beside a footprint", nothing, nothing,
         [&] {
             refine();
             const OwnWrites::Span span(ofIndex);
             change(Kind::Changed, u"HEAD");
         },
         nothing, 1},
        {"replaced by another", nothing, nothing,
         [&] {
             refine();
             const OwnWrites::Span span(ofIndex);
             change(Kind::Appeared);
             change(Kind::Appeared);
         },
         nothing, 1},
    };
    for (const bool isHeld : {false, true}) {
        for (const auto& one : cases) {
            SCOPED_TRACE(one.what);
            watcher->isHeld = isHeld;
            waits = one.waits;
            runs = one.runs;
            one.before();
            adapter->addFiles(files);
            one.after();
            watcher->deliver();
            EXPECT_EQ(triggered(), one.triggers) << isHeld;
        }
    }
    runs = [&] {
        change();
        throw std::out_of_range("mine");
    };
    EXPECT_THROW(adapter->addFiles(files), std::out_of_range);
    EXPECT_EQ(triggered(), 0);
    // One that does not wait, beside one that writes, ends its own suspension only.
    waits = nothing;
    bool isInner = false;
    runs = [&] {
        change();
        if (!std::exchange(isInner, true))
            adapter->checkout(files);
        change();
    };
    adapter->addFiles(files);
    EXPECT_EQ(triggered(), 0);
}

/// Git working copies whose operations take turns on one thread.
class DetectingGitTest : public testing::Test {
protected:
    struct Executor : platform::SingleThreadExecutor {
        Executor() : SingleThreadExecutor("SourceControl") {}
        void postFor(const TaskSubject& subject, Task task) override {
            SingleThreadExecutor::postFor(subject, std::move(task));
            queued.release();
        }
        std::counting_semaphore<> queued{0};
    };
    struct Copy {
        Copy(const fs::path& place, std::shared_ptr<Executor> executor)
            : root(Path::fromNative(place.native())),
              adapter(makeExternalChangeDetectingCMAdapter(
                  std::make_unique<SingleThreadedCMAdapter>(
                      std::move(executor), git::GitAdapterFactory().createAdapter(root, interactor),
                      root),
                  interactor)) {
            interactor->getStatusDispatcher().connect([this] { ++triggers; });
        }
        const Path root;
        const std::shared_ptr<CMApplicationInteractor> interactor =
            std::make_shared<CMApplicationInteractor>();
        const std::unique_ptr<CMAdapter> adapter;
        int triggers = 0;
    };

    DetectingGitTest() {
        test::makeRepository(sandbox);
        copy.emplace(sandbox.work(), executor);
    }
    int triggered() {
        detection.endWindows();
        return std::exchange(copy->triggers, 0);
    }
    void write(const std::string& file) {
        test::writeFile(sandbox.work() / file, std::to_string(++writes));
    }
    void commit(const std::string& file) {
        write(file);
        sandbox.git({"commit", "-qm", "external", file});
    }
    void hook(const fs::path& repository, const std::string& script) {
        const auto file = repository / ".git/hooks/pre-commit";
        test::writeFile(file, "#!/bin/sh\n" + script);
        fs::permissions(file, fs::perms::owner_all);
    }

    test::GitSandbox sandbox;
    test::SteppedDetection detection;
    const std::shared_ptr<Executor> executor = std::make_shared<Executor>();
    std::optional<Copy> copy;
    int writes = 1;
};

TEST_F(DetectingGitTest, DisregardsItsOwnWrites) {
    const auto& adapter = *copy->adapter;
    const auto a = copy->root / u"a", n = copy->root / u"n", m = copy->root / u"m";
    for (int i = 0; i < 6; ++i) {
        write("a");
        write("n");
        adapter.addFiles({n});
        adapter.moveFile(n, m);
        adapter.uncheckout({a});
        write("a");
        adapter.checkin({a, m}, u"own");
        adapter.removeFiles({m});
        adapter.uncheckout({m});
        adapter.checkout({m});
        adapter.removeFiles({m});
        adapter.checkin(m, u"own");
        EXPECT_EQ(triggered(), 0) << i;
    }
}

TEST_F(DetectingGitTest, ReportsCommitsOfOthersAroundItsOwnWrites) {
    const auto& adapter = *copy->adapter;
    const std::vector<Path> a{copy->root / u"a"};
    commit("sub/b");
    write("a");
    adapter.addFiles(a);
    EXPECT_EQ(triggered(), 1) << "before";
    write("a");
    adapter.addFiles(a);
    commit("sub/b");
    EXPECT_EQ(triggered(), 1) << "after";

    // While it waits for the turn of another working copy.
    const auto other = sandbox.root() / "other";
    sandbox.init({"--template="}, other);
    for (const char* name : {"running", "goOn"})
        ASSERT_EQ(::mkfifo((sandbox.root() / name).c_str(), 0600), 0);
    hook(other, ": >../running\nread line <../goOn\n");
    test::writeFile(other / "f", "");
    const Copy slow(other, executor);
    auto checkin = test::onThread([&] { slow.adapter->checkin(slow.root / u"f", u"slow"); });
    test::within(test::onThread([&] { std::ifstream(sandbox.root() / "running").get(); }));
    write("a");
    auto adding = test::onThread([&] { adapter.addFiles(a); });
    for (int operations = 0; operations < 4; ++operations)
        ASSERT_TRUE(executor->queued.try_acquire_for(test::deadline));
    commit("sub/b");
    EXPECT_EQ(triggered(), 1) << "while it waits for its turn";
    std::ofstream(sandbox.root() / "goOn") << "\n";
    test::within(std::move(checkin));
    test::within(std::move(adding));
    EXPECT_EQ(triggered(), 0);

    // While it waits for another git, which replaces the index then.
    const auto index = sandbox.work() / ".git/index", lock = sandbox.work() / ".git/index.lock";
    fs::copy_file(index, lock);
    std::promise<void> waits;
    copy->interactor->getProgressDispatcher().connect([&](const UString& text, double) {
        if (text.starts_with(u"waiting"))
            waits.set_value();
    });
    write("a");
    adding = test::onThread([&] { adapter.addFiles(a); });
    test::within(waits.get_future());
    fs::rename(lock, index);
    test::within(std::move(adding));
    EXPECT_EQ(triggered(), 1) << "while it waits for another git";
}

// What happens in the middle is made by what git runs.
TEST_F(DetectingGitTest, ReportsWhatOthersChangeDuringItsOwnWrites) {
    const auto& adapter = *copy->adapter;
    const auto a = copy->root / u"a";
    sandbox.git({"config", "filter.f.clean", "git branch -f during; cat"});
    test::writeFile(sandbox.work() / ".git/info/attributes", "a filter=f\n");
    triggered();
    write("a");
    adapter.addFiles({a});
    EXPECT_EQ(triggered(), 1) << "beside the index";
    fs::remove(sandbox.work() / ".git/info/attributes");
    triggered();
    hook(sandbox.work(), "git branch -f during2; exit $FAILS\n");
    ::setenv("FAILS", "1", 1);
    EXPECT_THROW(adapter.checkin(a, u"fails"), exception::SourceControlException);
    EXPECT_EQ(triggered(), 1) << "and no refresh follows";
    ::setenv("FAILS", "0", 1);
    sandbox.git({"branch", "-D", "during2"});
    triggered();
    adapter.checkin(a, u"succeeds");
    EXPECT_EQ(triggered(), 0) << "a refresh of everything follows";
    // The host reaps git meanwhile, so that nobody learns whether it succeeded.
    const auto goOn = sandbox.root() / "goOn";
    ASSERT_EQ(::mkfifo(goOn.c_str(), 0600), 0);
    hook(sandbox.work(),
         "git branch -f during3; echo mine >&2; read line <" + goOn.native() + "\n");
    copy->interactor->getProgressDispatcher().connect([&](const UString& text, double) {
        if (text == u"mine") {
            ::signal(SIGCHLD, SIG_IGN);
            std::ofstream(goOn) << "\n";
        }
    });
    write("a");
    EXPECT_THROW(adapter.checkin(a, u"is lost"), exception::SourceControlException);
    ::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(triggered(), 1) << "and no refresh follows";
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
