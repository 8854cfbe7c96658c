#pragma once

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "quendo/platform/standard/SingleThreadExecutor.h"
#include "quendo/platform/standard/StandardDelayedTaskService.h"
#include "quendo/platform/standard/StrandPool.h"
#include "quendo/pool/ManagedFolder.h"
#include "tests/support/FakeFactory.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/JoinedThreads.h"

/// What tests of managed folders over real Git working copies and real threads share.
namespace quendo::test {

/// Holds up who passes first after it was closed.
struct Gate {
    void pass() {
        if (isClosed.exchange(false)) {
            arrived.set_value();
            within(opened.get_future());
        }
    }
    std::atomic<bool> isClosed = false;
    std::promise<void> arrived, opened;
};

/// Git, but that the test sees every query before git does, and comes before files are added.
/// Outlives its adapters.
class HookedGitFactory : public git::GitAdapterFactory {
public:
    using GitAdapterFactory::GitAdapterFactory;

    std::function<void()> inQuery = [] {}, adds = [] {};

    std::unique_ptr<CMAdapter>
    createAdapter(const Path& folder,
                  std::shared_ptr<CMApplicationInteractor> interactor) override {
        return std::make_unique<Adapter>(
            GitAdapterFactory::createAdapter(folder, std::move(interactor)), *this);
    }

private:
    struct Adapter : CMAdapterDecorator {
        Adapter(std::unique_ptr<CMAdapter> adapter, const HookedGitFactory& hooks)
            : CMAdapterDecorator(std::move(adapter)), factory(hooks) {}
        void addFiles(const std::vector<Path>& files) const override {
            factory.adds();
            CMAdapterDecorator::addFiles(files);
        }
        std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override {
            factory.inQuery();
            return CMAdapterDecorator::getStatus(files);
        }
        std::map<Path, FileState> getStatus(const Path& path, bool flag) const override {
            factory.inQuery();
            return CMAdapterDecorator::getStatus(path, flag);
        }
        const HookedGitFactory& factory;
    };
};

/// A repository with the files "a" and "sub/b".
inline void makeRepository(GitSandbox& sandbox) {
    sandbox.enterEnvironment();
    sandbox.init({"--template="});
    writeFile(sandbox.work() / "a", "1");
    writeFile(sandbox.work() / "sub/b", "1");
    sandbox.commitAll("first");
}

/// The library's own services with Git, on threads of its own. Goes when nobody else uses it. Set
/// the hooks first.
class RealServices {
    const std::vector<long> m_before = held();
    JoinedThreads m_threads; ///< goes behind the services

public:
    const std::shared_ptr<HookedGitFactory> factory = std::make_shared<HookedGitFactory>();
    std::function<void(const Path&)> inWatch = [](const Path&) {}; ///< before it is watched
    std::function<void()> inWindow = [] {}; ///< before a window of change detection opens
    std::chrono::milliseconds longestDelay = std::chrono::hours(1);
    platform::Services services = make();

    /// Waits for the threads, and expects that nothing is left behind.
    ~RealServices() {
        services = {};
        m_threads.join();
        EXPECT_EQ(held(), m_before);
    }

private:
    struct Executors : platform::ExecutorService {
        explicit Executors(const platform::ThreadStarter& starter)
            : sourceControl(
                  std::make_shared<platform::SingleThreadExecutor>("SourceControl", starter)),
              strands({std::chrono::milliseconds(10), starter}) {}
        std::shared_ptr<Executor> getSourceControlExecutor() override { return sourceControl; }
        std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override {
            return strands.createStrand(name);
        }
        const std::shared_ptr<Executor> sourceControl;
        platform::StrandPool strands;
    };
    struct Delays : platform::StandardDelayedTaskService {
        Delays(const RealServices& services, const platform::ThreadStarter& starter)
            : StandardDelayedTaskService(starter), owner(services) {}
        void runAfter(std::chrono::milliseconds delay, UniqueFunction<void()> task) override {
            owner.inWindow();
            StandardDelayedTaskService::runAfter(std::min(delay, owner.longestDelay),
                                                 std::move(task));
        }
        const RealServices& owner;
    };
    struct Watcher : platform::InotifyFolderWatcher {
        Watcher(const RealServices& services, platform::InotifyFolderWatcherOptions options)
            : InotifyFolderWatcher(std::move(options)), owner(services) {}
        std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback) override {
            owner.inWatch(folder);
            return InotifyFolderWatcher::watch(folder, scope, std::move(callback));
        }
        const RealServices& owner;
    };

    platform::Services make() {
        const auto starter = m_threads.starter();
        platform::InotifyFolderWatcherOptions options;
        options.pollInterval = std::chrono::milliseconds(5);
        options.startThread = starter;
        platform::Services made;
        made.factorySources = std::make_shared<FakeSources>(factory);
        made.folderWatcher = std::make_shared<Watcher>(*this, std::move(options));
        made.delayedTasks = std::make_shared<Delays>(*this, starter);
        made.executors = std::make_shared<Executors>(starter);
        return made;
    }
};

/// A managed folder whose cache can be waited for.
struct FollowedFolder {
    explicit FollowedFolder(std::shared_ptr<ManagedFolder> followed)
        : folder(std::move(followed)), root(folder->getRootFolder()), cache(folder->getCache()) {
        cache.setFolderStatusFlag(true);
        cache.connectCacheChanged([news = news] {
            const std::lock_guard lock(news->mutex);
            news->came.notify_all();
        });
    }

    std::map<Path, FileState> cached() const {
        std::map<Path, FileState> states;
        for (const auto& path : cache.getCachedFiles())
            if (const auto state = cache.getCachedStatus(path))
                states.emplace(path, *state);
        return states;
    }
    std::map<Path, FileState> asked() const { return folder->getAdapter().getStatus(root, true); }
    bool has(const char16_t* file, LocalStatus state) const {
        const auto found = cache.getCachedStatus(root / file);
        return found && found->getState() == state;
    }
    /// Whether the cache comes to know this.
    bool comes(const char16_t* file, LocalStatus state) const {
        std::unique_lock lock(news->mutex);
        return news->came.wait_until(lock, byDeadline(), [&] { return has(file, state); });
    }

    struct News {
        std::mutex mutex;
        std::condition_variable came;
    };
    const std::shared_ptr<News> news = std::make_shared<News>();
    const std::shared_ptr<ManagedFolder> folder;
    const Path root;
    CMStatusCache& cache;
};

} // namespace quendo::test
