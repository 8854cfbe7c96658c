#pragma once

#include "benchmarks/Measuring.h"
#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/cache/VFSFileChangeCacheUpdater.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "quendo/platform/standard/StandardExecutorService.h"
#include "tests/support/Deadline.h"
#include "tests/support/GitSandbox.h"

#include <atomic>
#include <ctime>
#include <fcntl.h>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace quendo::benchmark {

/// In place, all in one write. What is there must not be longer: file systems may wait for the disk
/// when a file is cut off first, and that is not what is measured.
inline void overwrite(const std::string& file, std::string_view content) {
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor < 0 ||
        ::write(descriptor, content.data(), content.size()) != std::ssize(content) ||
        ::close(descriptor) != 0)
        throw std::runtime_error("cannot write " + file);
}

/// A real repository: a fifth of the files lies in a twenty-fifth of the folders, so that much can
/// happen in few of them.
class BigRepository {
public:
    BigRepository(std::size_t files, std::size_t folders) {
        m_sandbox.enterEnvironment();
        m_sandbox.init();
        const auto full = folders / 25, inFull = files / 5;
        for (std::size_t i = 0; i < folders; ++i) {
            m_folders.push_back(m_sandbox.work().native() + "/module_" + std::to_string(i / 50) +
                                "/package_" + std::to_string(i % 50));
            std::filesystem::create_directories(m_folders.back());
        }
        for (std::size_t i = 0; i < files; ++i) {
            const auto folder = i < inFull ? i % full : full + i % (folders - full);
            m_files.push_back(m_folders[folder] + "/component_" + std::to_string(i) + ".cpp");
            overwrite(m_files.back(), original(i));
            date(i);
        }
        git({"add", "-A"});
        git({"commit", "-q", "-m", "files"});
        refreshIndex();
    }

    const test::GitSandbox& sandbox() const { return m_sandbox; }
    const std::vector<std::string>& folders() const { return m_folders; }
    const std::vector<std::string>& files() const { return m_files; }
    /// Those of the full folders are the first.
    std::size_t filesInFullFolders() const { return m_files.size() / 5; }
    std::size_t fullFolders() const { return m_folders.size() / 25; }

    static std::string original(std::size_t i) { return "int value_" + std::to_string(i) + ";\n"; }
    static std::string modified(std::size_t i) { return "int other_" + std::to_string(i) + ";\n"; }

    /// Sets the file's times to long ago: git reads every file again that is as new as its index.
    /// One event, and nothing that git reports.
    void date(std::size_t i) const {
        constexpr timespec longAgo{1'500'000'000, 0};
        const timespec times[] = {longAgo, longAgo};
        if (::utimensat(AT_FDCWD, m_files[i].c_str(), times, 0) != 0)
            throw std::runtime_error("cannot date " + m_files[i]);
    }
    /// Until then git reads every file whose times were set.
    void refreshIndex() const { git({"update-index", "--really-refresh"}); }

private:
    /// However long it takes.
    void git(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "git");
        const auto result = test::runProcess(
            arguments, {m_sandbox.work(), m_sandbox.environment(), std::chrono::hours(1)});
        if (result.exitCode != 0)
            throw std::runtime_error(arguments[1] + ": " + result.errors);
    }

    test::GitSandbox m_sandbox;
    std::vector<std::string> m_folders, m_files;
};

/// The library's watcher and strands, with a look at what passes. One a process, put in place for
/// the rest of it.
class ObservedServices {
public:
    ObservedServices() {
        platform::Services services;
        services.folderWatcher = m_watcher;
        services.executors = m_executors;
        platform::install(std::move(services));
    }

    /// Called before each callback of the watcher, on its thread.
    void onEvent(std::function<void(const platform::FolderEvent&)> observer) const {
        m_watcher->observer = std::move(observer);
    }

    /// Until everything that has happened was told.
    void flushEvents() const {
        std::promise<void> reached;
        m_watcher->fence([&] { reached.set_value(); });
        test::within(reached.get_future());
    }

    /// The same, and every strand has done what it had to do.
    void flush() const {
        flushEvents();
        std::list<std::shared_ptr<Executor>> strands;
        {
            const std::lock_guard lock(m_executors->mutex);
            for (const auto& strand : m_executors->strands)
                if (auto locked = strand.lock())
                    strands.push_back(std::move(locked));
        }
        for (const auto& strand : strands)
            strand->runSyncTask([] {});
    }

private:
    struct Watcher final : platform::FolderWatcher {
        std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback) override {
            return real->watch(
                folder, scope,
                [this, callback = std::move(callback)](const platform::FolderEvent& event) {
                    if (observer)
                        observer(event);
                    callback(event);
                });
        }
        void fence(UniqueFunction<void()> reached) override { real->fence(std::move(reached)); }
        platform::WatchHealth getHealth(const Path& folder) const override {
            return real->getHealth(folder);
        }
        boost::signals2::connection connectHealthChanged(const HealthSlot& slot) override {
            return real->connectHealthChanged(slot);
        }
        const std::shared_ptr<FolderWatcher> real = platform::InotifyFolderWatcher::instance();
        std::function<void(const platform::FolderEvent&)> observer;
    };
    struct Executors final : platform::ExecutorService {
        std::shared_ptr<Executor> getSourceControlExecutor() override {
            return real->getSourceControlExecutor();
        }
        std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override {
            auto strand = real->createStrandExecutor(name);
            const std::lock_guard lock(mutex);
            strands.push_back(strand);
            return strand;
        }
        const std::shared_ptr<ExecutorService> real = platform::StandardExecutorService::instance();
        std::mutex mutex;
        std::list<std::weak_ptr<Executor>> strands; ///< guarded by mutex
    };

    const std::shared_ptr<Watcher> m_watcher = std::make_shared<Watcher>();
    const std::shared_ptr<Executors> m_executors = std::make_shared<Executors>();
};

/// Counts the queries and notes when the last one began and ended.
class TimedAdapter final : public CMAdapterDecorator {
public:
    using CMAdapterDecorator::CMAdapterDecorator;

    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override {
        ++fileQueries;
        return timed([&] { return CMAdapterDecorator::getStatus(files); });
    }
    std::map<Path, FileState> getStatus(const Path& folder, bool flag) const override {
        ++folderQueries;
        return timed([&] { return CMAdapterDecorator::getStatus(folder, flag); });
    }
    std::size_t queries() const { return fileQueries + folderQueries; }

    mutable std::atomic<std::size_t> fileQueries = 0, folderQueries = 0;
    Clock::duration spent() const { return Clock::duration(m_spent.load()); }

    mutable std::atomic<Clock::time_point> begin{}, end{};

private:
    template <class Query>
    std::map<Path, FileState> timed(const Query& query) const {
        begin = Clock::now();
        auto answer = query();
        end = Clock::now();
        m_spent += (end.load() - begin.load()).count();
        return answer;
    }

    mutable std::atomic<Clock::rep> m_spent{0};
};

/// A filled cache of the repository, with the layers that a host puts around the adapter.
class FollowedRepository {
public:
    FollowedRepository(const BigRepository& repository, const ObservedServices& services)
        : root(Path::fromNative(repository.sandbox().work().native())), m_services(services) {
        cache->setFolderStatusFlag(true);
        interactor->getStatusDispatcher().connect(nonBlockingFullUpdateResponse(cache, root));
        cache->refreshAll();
    }

    void follow() { m_updater.emplace(cache, *adapter); }

    /// Until all that has happened was answered.
    void settle() const {
        for (int quiet = 0; quiet < 2; ++quiet) {
            const auto before = adapter->queries();
            m_services.flush();
            if (adapter->queries() != before)
                quiet = -1;
        }
    }

    /// What the cache holds and a fresh query answers otherwise.
    std::size_t differences() const {
        const auto asked = adapter->getStatus(root, true);
        const auto paths = cache->getCachedFiles();
        std::size_t equal = 0;
        for (const auto& path : paths) {
            const auto found = asked.find(path);
            equal += found != asked.end() && cache->getCachedStatus(path) == found->second;
        }
        return paths.size() - equal + asked.size() - equal;
    }

    const Path root;
    const std::shared_ptr<CMApplicationInteractor> interactor =
        std::make_shared<CMApplicationInteractor>();
    const std::shared_ptr<TimedAdapter> adapter =
        std::make_shared<TimedAdapter>(makeExternalChangeDetectingCMAdapter(
            std::make_unique<SingleThreadedCMAdapter>(
                getSourceControlExecutor(),
                git::GitAdapterFactory().createAdapter(root, interactor)),
            interactor));
    const std::shared_ptr<CMStatusCache> cache = createJobCombiningCache(adapter, interactor);

private:
    const ObservedServices& m_services;
    std::optional<VFSFileChangeCacheUpdater> m_updater;
};

} // namespace quendo::benchmark
