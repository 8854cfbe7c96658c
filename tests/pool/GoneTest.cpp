#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/cache/VFSFileChangeCacheUpdater.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/FolderDeletionWatcher.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "quendo/platform/standard/SingleThreadExecutor.h"
#include "quendo/platform/standard/StandardDelayedTaskService.h"
#include "quendo/platform/standard/StandardEventMgr.h"
#include "quendo/platform/standard/StrandPool.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/HookedAdapter.h"
#include "tests/support/OwnNamespaces.h"
#include "tests/support/SteppedDetection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>

namespace quendo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// Git cannot add files yet: the test does it instead.
class AddingAdapter : public test::HookedAdapter {
public:
    AddingAdapter(std::unique_ptr<CMAdapter> adapter, Hook hook, std::function<void()> adds)
        : HookedAdapter(std::move(adapter), std::move(hook)), m_adds(std::move(adds)) {}
    void addFiles(const std::vector<Path>&) const override { m_adds(); }

private:
    const std::function<void()> m_adds;
};

/// All layers over one Git working copy.
struct Layers {
    /// @param sourceControl null: queries run on the thread of whoever asks
    Layers(const Path& folder, const std::shared_ptr<Executor>& sourceControl,
           std::function<void()> inQuery, std::function<void()> adds)
        : root(folder) {
        const auto interactor = std::make_shared<CMApplicationInteractor>();
        auto chain = makeExternalChangeDetectingCMAdapter(
            std::make_unique<AddingAdapter>(
                git::GitAdapterFactory().createAdapter(root, interactor),
                [inQuery = std::move(inQuery)](const test::Query&) { inQuery(); }, std::move(adds)),
            interactor);
        if (sourceControl != nullptr)
            chain = std::make_unique<SingleThreadedCMAdapter>(sourceControl, std::move(chain));
        adapter = std::move(chain);
        cache = createJobCombiningCache(adapter, interactor);
        cache->setFolderStatusFlag(true);
        cache->connectCacheChanged([news = news] {
            const std::lock_guard lock(news->mutex);
            news->came.notify_all();
        });
        auto& dispatcher = interactor->getStatusDispatcher();
        dispatcher.connect([news = news] { ++news->triggers; });
        response = dispatcher.connect(nonBlockingFullUpdateResponse(cache, root));
        updater.emplace(cache, *adapter);
    }

    std::map<Path, FileState> cached() const {
        std::map<Path, FileState> states;
        for (const auto& path : cache->getCachedFiles())
            if (const auto state = cache->getCachedStatus(path))
                states.emplace(path, *state);
        return states;
    }
    std::map<Path, FileState> asked() const { return adapter->getStatus(root, true); }
    bool has(const char16_t* file, LocalStatus state) const {
        const auto found = cache->getCachedStatus(root / file);
        return found && found->getState() == state;
    }
    /// Whether the cache comes to know this.
    bool comes(const char16_t* file, LocalStatus state) const {
        std::unique_lock lock(news->mutex);
        return news->came.wait_until(lock, test::byDeadline(), [&] { return has(file, state); });
    }

    struct News {
        std::mutex mutex;
        std::condition_variable came;
        std::atomic<int> triggers = 0;
    };
    const Path root;
    const std::shared_ptr<News> news = std::make_shared<News>();
    std::shared_ptr<CMAdapter> adapter;
    std::shared_ptr<CMStatusCache> cache;
    boost::signals2::connection response; ///< to a foreign change
    std::optional<VFSFileChangeCacheUpdater> updater;
};

/// What the process holds: descriptors, watches of the kernel, threads that bear a name of the
/// library's (a sanitizer has one without), child processes.
std::vector<long> held() {
    const auto countLines = [](const fs::path& file, auto counts) {
        std::ifstream stream(file);
        long count = 0;
        for (std::string line; std::getline(stream, line);)
            count += counts(line);
        return count;
    };
    long watches = 0, descriptors = 0, threads = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo")) {
        ++descriptors;
        watches +=
            countLines(entry.path(), [](auto& line) { return line.starts_with("inotify "); });
    }
    const auto ownName = test::readFile("/proc/self/comm");
    for (const auto& entry : fs::directory_iterator("/proc/self/task"))
        threads +=
            countLines(entry.path() / "comm", [&](auto& name) { return name + "\n" != ownName; });
    return {descriptors, watches, threads, ::waitpid(-1, nullptr, WNOHANG)};
}

void makeRepository(test::GitSandbox& sandbox) {
    sandbox.enterEnvironment();
    sandbox.init({"--template="});
    test::writeFile(sandbox.work() / "a", "1");
    test::writeFile(sandbox.work() / "sub/b", "1");
    sandbox.commitAll("first");
}

/// A working copy that goes, under everything that works on it by real threads.
class Gone : public testing::Test {
protected:
    Gone() { makeRepository(sandbox); }

    struct Way {
        std::function<void()> prepare, go, comeBack;
        bool isDeletion = true;
    };

    void run(const Way& way) {
        const auto before = held();
        {
            const auto executors = std::make_shared<Executors>(starter);
            const platform::ScopedServices scoped(makeServices(executors));
            const int rounds = std::getenv("QUENDO_LONG") != nullptr ? 100 : 3;
            for (int i = 0; i < rounds && !HasFailure(); ++i) {
                SCOPED_TRACE(i);
                ::umount2(copy.c_str(), MNT_DETACH);
                for (const auto& folder : {parent, moved})
                    fs::remove_all(folder);
                way.prepare();
                round(way, executors->sourceControl, i % 3);
            }
            executors->sourceControl = nullptr;
            for (std::unique_lock lock(threadsMutex); !threads.empty();) {
                auto ending = std::exchange(threads, {});
                lock.unlock();
                for (auto& thread : ending)
                    test::within(std::move(thread));
                lock.lock();
            }
        }
        // What a thread does last cannot be waited for.
        for (const auto end = test::byDeadline();
             held() != before && std::chrono::steady_clock::now() < end;)
            std::this_thread::yield();
        EXPECT_EQ(held(), before);
    }

    test::GitSandbox sandbox;
    const fs::path parent = sandbox.root() / "parent", copy = parent / "copy",
                   moved = sandbox.root() / "moved";
    const std::function<void()> makeCopy = [this] {
        fs::create_directories(copy);
        fs::copy(sandbox.work(), copy, fs::copy_options::recursive);
    };

private:
    struct Executors : platform::ExecutorService {
        explicit Executors(const platform::ThreadStarter& starter)
            : sourceControl(
                  std::make_shared<platform::SingleThreadExecutor>("SourceControl", starter)),
              strands({10ms, starter}) {}
        std::shared_ptr<Executor> getSourceControlExecutor() override { return sourceControl; }
        std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override {
            return strands.createStrand(name);
        }
        std::shared_ptr<Executor> sourceControl;
        platform::StrandPool strands;
    };

    platform::Services makeServices(const std::shared_ptr<Executors>& executors) const {
        platform::InotifyFolderWatcherOptions options;
        options.pollInterval = 5ms;
        options.startThread = starter;
        platform::Services services;
        services.folderWatcher = std::make_shared<platform::InotifyFolderWatcher>(options);
        const auto events = std::make_shared<platform::StandardEventMgr>(services.folderWatcher);
        services.events = events;
        services.fileSystem = events;
        services.delayedTasks = std::make_shared<platform::StandardDelayedTaskService>(starter);
        services.executors = executors;
        return services;
    }

    /// @param when it goes: before a query reaches git, when it does so, or in the middle
    void round(const Way& way, const std::shared_ptr<Executor>& sourceControl, int when) {
        std::atomic<int> told = 0;
        std::promise<void> gone;
        struct Hold {
            std::atomic<bool> isClosed = false;
            std::promise<void> arrived, opened;
        };
        const auto hold = std::make_shared<Hold>();
        const auto inQuery = [hold] {
            if (hold->isClosed.exchange(false)) {
                hold->arrived.set_value();
                test::within(hold->opened.get_future());
            }
        };
        Layers layers(Path::fromNative(copy.native()), sourceControl, inQuery, [] {});
        const auto watcher = platform::services()->deletionWatchers->watch(layers.root);
        watcher->onDeleted([&] {
            if (++told == 1)
                gone.set_value();
        });
        layers.cache->refreshAll();
        EXPECT_TRUE(layers.has(u"sub/b", LocalStatus::Unmodified));

        // Tasks that are handed in before it goes, at any time meanwhile, and when it has gone.
        const std::vector<std::function<void()>> requests{
            [&] { layers.cache->refreshAll(); },
            [&] { layers.cache->refreshFolder(layers.root / u"sub")->wait(); },
            [&] { layers.cache->refreshCMStatuses({layers.root / u"a"})->wait(); },
            [&] { layers.cache->refreshCMStatuses({layers.root / u"sub/b"})->wait(); },
        };
        std::atomic<bool> hasGone = false;
        std::vector<std::future<void>> waiters;
        hold->isClosed = true;
        for (const auto& request : requests)
            waiters.push_back(test::onThread([&] {
                for (bool isLast = false; !isLast;) {
                    isLast = hasGone;
                    try {
                        request();
                    } catch (const std::exception&) { // it depends on when it went
                    }
                }
            }));
        test::within(hold->arrived.get_future());
        if (when != 0)
            hold->opened.set_value();
        if (when == 2)
            sandbox.git({"status"}, copy); // takes about as long
        way.go();
        if (when == 0)
            hold->opened.set_value();
        if (way.isDeletion)
            test::within(gone.get_future());
        hasGone = true;
        for (auto& waiter : waiters)
            test::within(std::move(waiter));
        EXPECT_ANY_THROW(layers.cache->refreshAll());

        layers.response.disconnect(); // changes are to be seen without it
        way.comeBack();
        if (way.isDeletion) {
            layers.cache->refreshAll();
            EXPECT_EQ(layers.cached(), layers.asked());
        }
        test::writeFile(copy / "sub/b", "changed");
        EXPECT_TRUE(layers.comes(u"sub/b", LocalStatus::Modified));
        test::writeFile(copy / "new/deep", "");
        EXPECT_TRUE(layers.comes(u"new/deep", LocalStatus::NotUnderSourceControl));
        EXPECT_EQ(told, way.isDeletion ? 1 : 0);
        EXPECT_EQ(watcher->isDeleted(), way.isDeletion);
    }

    std::mutex threadsMutex;
    std::vector<std::future<void>> threads;
    const platform::ThreadStarter starter = [this](UniqueFunction<void()> body) {
        const std::lock_guard lock(threadsMutex);
        threads.push_back(test::onThread(std::move(body)));
    };
};
using GoneDeathTest = Gone;

TEST_F(Gone, Deleted) {
    run({makeCopy, [&] { fs::remove_all(copy); }, makeCopy});
}
TEST_F(Gone, Renamed) {
    run({makeCopy, [&] { fs::rename(copy, parent / "other"); },
         [&] { fs::rename(parent / "other", copy); }});
}
TEST_F(Gone, DeletedWithItsParent) {
    run({makeCopy, [&] { fs::remove_all(parent); }, makeCopy});
}
TEST_F(Gone, RenamedWithItsParent) {
    run({makeCopy, [&] { fs::rename(parent, moved); }, [&] { fs::rename(moved, parent); }});
}
TEST_F(Gone, ReplacedByAnotherFolder) {
    run({makeCopy,
         [&] {
             fs::rename(copy, moved);
             test::writeFile(copy / "sub/b", "another's");
         },
         [&] {
             fs::remove_all(copy);
             fs::rename(moved, copy);
         }});
}
TEST_F(Gone, Unreadable) {
    const auto allow = [&](fs::perms perms) { return [=, this] { fs::permissions(copy, perms); }; };
    makeCopy();
    allow(fs::perms::none)();
    std::error_code refused;
    fs::directory_iterator(copy, refused);
    allow(fs::perms::owner_all)();
    if (!refused)
        GTEST_SKIP() << "SKIPPED: nothing is unreadable for this user";
    run({makeCopy, allow(fs::perms::none), allow(fs::perms::owner_all), false});
}
TEST_F(GoneDeathTest, Unmounted) {
    test::expectSuccessInOwnNamespaces([&] {
        const auto mount = [&] {
            fs::create_directories(copy);
            if (::mount("none", copy.c_str(), "tmpfs", 0, nullptr) != 0)
                test::skipForWantOfRights();
            makeCopy();
        };
        // Detached: git may be at work in it.
        run({mount, [&] { EXPECT_EQ(::umount2(copy.c_str(), MNT_DETACH), 0); }, mount});
        ::umount2(copy.c_str(), MNT_DETACH);
        fs::remove_all(sandbox.root());
    });
}

/// A working copy in which the test says when something is told; by real events.
class Missed : public testing::Test {
protected:
    Missed() {
        makeRepository(sandbox);
        layers.emplace(
            Path::fromNative(sandbox.work().native()), nullptr, [] {}, [this] { adds(); });
        layers->cache->refreshFolder(layers->root);
        settle();
    }
    /// @return the notices of foreign changes
    int settle() {
        while (detection.endWindows() != 0) {
        }
        detection.endWindows();
        return layers->news->triggers.exchange(0);
    }

    test::GitSandbox sandbox;
    std::function<void()> adds = [this] { sandbox.git({"add", "-A"}); };
    test::SteppedDetection detection;
    std::optional<Layers> layers;
};

TEST_F(Missed, NothingOfWhatOthersDoAroundAnOperation) {
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        const auto text = std::to_string(i);
        test::writeFile(sandbox.work() / "a", "added " + text);
        settle();
        adds = [&] {
            sandbox.git({"add", "a"});
            test::writeFile(sandbox.work() / "sub/b", "foreign " + text);
            EXPECT_EQ(detection.endWindows(), 0U);
        };
        layers->adapter->addFiles({layers->root / u"a"});
        EXPECT_EQ(settle(), 0);
        EXPECT_TRUE(layers->has(u"sub/b", LocalStatus::Modified));

        // Somebody commits just before an operation.
        sandbox.commitAll(text);
        adds = [&] { sandbox.git({"update-index", "--refresh"}); };
        layers->adapter->addFiles({layers->root / u"a"});
        EXPECT_EQ(settle(), 1);
        EXPECT_TRUE(layers->has(u"sub/b", LocalStatus::Unmodified));

        // And just before all detection is turned off.
        test::writeFile(sandbox.work() / "a", "committed " + text);
        sandbox.commitAll(text);
        {
            const auto updater = layers->updater->disable();
            const auto guard =
                std::any_cast<FolderExternalChangeDetector*>(
                    layers->adapter->getSubsystem(typeid(FolderExternalChangeDetector)))
                    ->disable();
        }
        EXPECT_EQ(settle(), 1);
        EXPECT_EQ(layers->cached(), layers->asked());
    }
}

TEST_F(Missed, OwnOperationsAndQueriesAreNoForeignChange) {
    for (int i = 0; i < 50; ++i) {
        test::writeFile(sandbox.work() / "a", std::to_string(i));
        adds = [&] {
            sandbox.git({"checkout", "-qB", "branch" + std::to_string(i)});
            sandbox.commitAll("own");
        };
        layers->adapter->addFiles({layers->root / u"a"});
        layers->adapter->getStatus(layers->root, true);
        EXPECT_EQ(settle(), 0) << i;
    }
    sandbox.git({"branch", "foreign"});
    EXPECT_EQ(settle(), 1);
}

} // namespace
} // namespace quendo
