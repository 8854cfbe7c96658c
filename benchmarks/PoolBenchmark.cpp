// What the pool of managed folders costs, over a real repository. Each section runs in a process of
// its own.
//
// quendo_benchmark_pool [FILES [FOLDERS [SECTION]]]

#include "benchmarks/FollowedRepository.h"
#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/factory/AllCMAdapterFactoryProvider.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

namespace {

using namespace quendo;
using namespace quendo::benchmark;
namespace fs = std::filesystem;

Path rootOf(const BigRepository& repository) {
    return Path::fromNative(repository.sandbox().work().native());
}

std::size_t countEntries(const char* folder) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

/// What the kernel watches for this process.
std::size_t countWatches() {
    std::size_t watches = 0;
    for (std::size_t descriptor = 0; descriptor < 256; ++descriptor) {
        std::ifstream about("/proc/self/fdinfo/" + std::to_string(descriptor));
        for (std::string line; std::getline(about, line);)
            watches += line.starts_with("inotify ");
    }
    return watches;
}

/// Of the threads whose names begin so.
std::size_t countThreads(std::string_view beginning) {
    std::size_t threads = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        threads += name.starts_with(beginning);
    }
    return threads;
}

void runOrThrow(const BigRepository& repository, const std::vector<std::string>& command) {
    const auto result = test::runProcess(
        command, {repository.sandbox().work(), repository.sandbox().environment()});
    if (result.exitCode != 0)
        throw std::runtime_error(command.front() + ": " + result.errors);
}

void fill(ManagedFolder& folder) {
    folder.getCache().setFolderStatusFlag(true);
    folder.getCache().refreshFolder(folder.getRootFolder())->wait();
}

/// Until what the fresh cache has brought is watched and looked at.
void settle(const ObservedServices& services) {
    std::size_t before = 0;
    do {
        before = countWatches();
        services.flush();
        services.flush();
    } while (countWatches() != before);
}

// --- A second client ---

void measureSecond(const BigRepository& repository) {
    const auto deep = fs::path(repository.folders().front()) / "a/b/c/d";
    fs::create_directories(deep);
    const auto path = Path::fromNative(deep.native());
    const auto provider = createNewManagedFolderProviderInstance();
    const auto live = provider->provideFor(path, "first");
    const auto add = [](Histogram& histogram, const auto& work) {
        const auto start = Clock::now();
        work();
        histogram.add(Clock::now() - start);
    };
    Histogram whole, probing, walking, byHand;
    for (int i = 0; i < 5'000; ++i) {
        add(whole, [&] { (void)provider->provideFor(path, "second"); });
        std::shared_ptr<CMAdapterFactory> factory;
        Path at;
        const auto walk = [&] {
            at = platform::services()->files->canonical(path);
            while ((factory = AllCMAdapterFactoryProvider().provide(at)) == nullptr)
                at = at.parentPath();
        };
        add(walking, walk);
        add(probing, [&] {
            walk();
            (void)factory->createAdapter(at, std::make_shared<CMApplicationInteractor>())
                ->getRootFolder();
        });
        add(byHand, [&] {
            struct stat status;
            auto folder = fs::canonical(deep).native();
            while (::lstat((folder + "/.git").c_str(), &status) != 0)
                folder.resize(folder.rfind('/'));
        });
    }
    std::printf("A second client of a live folder, from 6 folders deep; microseconds\n"
                "  %-46s %9s %9s\n",
                "", "median", "99 %");
    const auto print = [](const char* name, const Histogram& histogram) {
        std::printf("  %-46s %9.1f %9.1f\n", name, histogram.quantile(0.5) / 1e3,
                    histogram.quantile(0.99) / 1e3);
    };
    print("provideFor", whole);
    print("probing: up the folders, the adapter, its root", probing);
    print("  of it up the folders", walking);
    print("canonical and a look for .git by hand", byHand);
    std::printf("  probing is %.0f %% of it; by hand is the least that any answer takes: %.1f "
                "times that\n",
                100 * probing.quantile(0.5) / whole.quantile(0.5),
                whole.quantile(0.5) / byHand.quantile(0.5));
}

// --- The first client ---

void measureFirst(const BigRepository& repository) {
    const ObservedServices services;
    const auto provider = createNewManagedFolderProviderInstance();
    struct Part {
        const char* name;
        std::vector<double> times, ratios;
    };
    std::array parts{Part{"until provideFor returns", {}, {}},
                     Part{"until the cache is complete", {}, {}},
                     Part{"until every folder is watched", {}, {}}};
    std::vector<double> git;
    std::size_t watches = 0;
    for (int run = 0; run < 7; ++run) {
        const auto start = Clock::now();
        const auto passed = [&] {
            return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        };
        auto folder = provider->provideFor(rootOf(repository), "first");
        parts[0].times.push_back(passed());
        fill(*folder);
        parts[1].times.push_back(passed());
        settle(services);
        parts[2].times.push_back(passed());
        watches = countWatches();
        folder.reset();
        git.push_back(millisecondsOf([&] {
            runOrThrow(repository, {"git", "status", "--porcelain", "-uall"});
        }));
        for (auto& part : parts)
            part.ratios.push_back(part.times.back() / git.back());
    }
    std::printf("The first client, medians of %zu; milliseconds from the request\n"
                "  %-46s %9s %9s\n",
                git.size(), "", "median", "to git");
    for (const auto& part : parts)
        std::printf("  %-46s %9.1f %9.2f\n", part.name, median(part.times), median(part.ratios));
    std::printf("  %-46s %9.1f\n"
                "  to git: round by round; %zu watches at the end, with those of the metadata\n",
                "git status --porcelain -uall", median(git), watches);
}

// --- The program ---

void measureStatus(const BigRepository& repository) {
    std::vector<double> own, git, ratios;
    for (int run = -1; run < 15; ++run) {
        const auto ownTime = millisecondsOf([&] {
            runOrThrow(repository, {QUENDO_PROGRAM, "status", "--porcelain"});
        });
        const auto gitTime = millisecondsOf([&] {
            runOrThrow(repository,
                       {"git", "--no-optional-locks", "status", "--porcelain", "-uall"});
        });
        if (run < 0)
            continue; // both are in the system's memory from now on
        own.push_back(ownTime);
        git.push_back(gitTime);
        ratios.push_back(ownTime / gitTime);
    }
    std::printf("The program, medians of %zu; milliseconds\n"
                "  %-46s %9.1f\n  %-46s %9.1f\n"
                "  ratio, round by round: %.2f (%.2f to %.2f)\n",
                own.size(), "quendo status --porcelain", median(own),
                "git --no-optional-locks status --porcelain -uall", median(git), median(ratios),
                *std::ranges::min_element(ratios), *std::ranges::max_element(ratios));
}

// --- Two repositories ---

class SlowAdapter final : public CMAdapterDecorator {
public:
    using CMAdapterDecorator::CMAdapterDecorator;
    using CMAdapterDecorator::getStatus;

    std::map<Path, FileState> getStatus(const Path&, bool) const override {
        std::promise<void> over;
        platform::services()->delayedTasks->runAfter(std::chrono::milliseconds(500),
                                                     [&] { over.set_value(); });
        begun.set_value();
        test::within(over.get_future());
        return {};
    }
    mutable std::promise<void> begun;
};

void measureBeside(const BigRepository& repository) {
    const auto other = repository.sandbox().root() / "other";
    repository.sandbox().init({}, other);
    for (int i = 0; i < 10; ++i)
        overwrite((other / std::to_string(i)).native(), "new\n");
    repository.sandbox().commitAll("files", other);
    const auto provider = createNewManagedFolderProviderInstance();
    const auto folder = provider->provideFor(Path::fromNative(other.native()), "other");
    const auto refresh = [&] { return millisecondsOf([&] { fill(*folder); }); };
    std::vector<double> alone, beside;
    for (int run = 0; run < 9; ++run) {
        alone.push_back(refresh());
        auto adapter = std::make_unique<SlowAdapter>(git::GitAdapterFactory().createAdapter(
            rootOf(repository), std::make_shared<CMApplicationInteractor>()));
        auto begun = adapter->begun.get_future();
        const SingleThreadedCMAdapter slow(getSourceControlExecutor(), std::move(adapter));
        auto operation = test::onThread([&] { (void)slow.getStatus(rootOf(repository), true); });
        test::within(std::move(begun));
        beside.push_back(refresh());
        test::within(std::move(operation));
    }
    std::printf("A refresh of a repository of 10 files, medians of %zu; milliseconds\n"
                "  %-46s %9.1f\n  %-46s %9.1f\n"
                "  it waits: one source-control thread serves every repository\n",
                alone.size(), "alone", median(alone), "while another's operation takes 500",
                median(beside));
}

// --- Many idle ones ---

/// A repository of ten files beside the large one.
fs::path makeSmall(const BigRepository& repository, const std::string& name) {
    const auto root = repository.sandbox().root() / name;
    repository.sandbox().init({}, root);
    for (int i = 0; i < 10; ++i)
        overwrite((root / std::to_string(i)).native(), "new\n");
    repository.sandbox().commitAll("files", root);
    return root;
}

void waitFor(std::chrono::seconds time) {
    std::promise<void> over;
    platform::services()->delayedTasks->runAfter(time, [&] { over.set_value(); });
    test::within(over.get_future());
}

void measureIdle(const BigRepository& repository) {
    constexpr int count = 200;
    const auto first = makeSmall(repository, "small0");
    const auto provider = createNewManagedFolderProviderInstance();
    std::vector<std::shared_ptr<ManagedFolder>> folders;
    for (int i = 0; i < count; ++i) {
        const auto root = first.parent_path() / ("small" + std::to_string(i));
        if (i != 0)
            fs::copy(first, root, fs::copy_options::recursive);
        folders.push_back(provider->provideFor(Path::fromNative(root.native()), "idle"));
        fill(*folders.back());
    }
    const auto threads = countEntries("/proc/self/task");
    waitFor(std::chrono::seconds(15)); // a worker of the pool of strands leaves after ten
    std::printf("%d working copies are followed: %zu watches; threads, with the main one: %zu, "
                "after 15 idle seconds %zu\n",
                count, countWatches(), threads, countEntries("/proc/self/task"));
}

// --- Beside a file system that hangs ---

void measureStalled(const BigRepository& repository) {
    const auto root = makeSmall(repository, "live"), stalled = root.parent_path() / "stalled";
    fs::create_directory(stalled);
    const int server = ::open("/dev/fuse", O_RDWR | O_CLOEXEC); // answers nothing
    const auto how = "fd=" + std::to_string(server) + ",rootmode=40000,user_id=0,group_id=0";
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", stalled.c_str(), "fuse", 0, how.c_str()) != 0) {
        std::printf("no file system may be mounted here: run the section \"stalled\" as root\n");
        return;
    }
    const auto path = Path::fromNative(root.native()), file = path / u"0";
    const auto provider = createNewManagedFolderProviderInstance();
    const auto live = provider->provideFor(path, "live");
    std::mutex mutex;
    std::condition_variable changed;
    live->getCache().connectCacheChanged([&] {
        const std::lock_guard lock(mutex);
        changed.notify_all();
    });
    fill(*live);
    bool isModified = false;
    const auto write = [&] {
        isModified = !isModified;
        const auto wanted = isModified ? LocalStatus::Modified : LocalStatus::Unmodified;
        overwrite((root / "0").native(), isModified ? "old\n" : "new\n");
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, test::deadline, [&] {
                const auto state = live->getCache().getCachedStatus(file);
                return state && state->getState() == wanted;
            }))
            throw std::runtime_error("a write does not become visible");
    };
    const auto measure = [&](const char* when) {
        std::vector<double> visible, providing, watching;
        for (int i = 0; i < 20; ++i) {
            visible.push_back(millisecondsOf(write));
            providing.push_back(millisecondsOf([&] { (void)provider->provideFor(path, "2"); }));
            watching.push_back(millisecondsOf([&] {
                (void)platform::services()->folderWatcher->watch(
                    path / u".git", platform::FolderWatcher::Scope::Itself,
                    [](const platform::FolderEvent&) {});
            }));
        }
        std::printf("  %-46s %9.1f %9.2f %9.3f\n", when, median(visible), median(providing),
                    median(watching));
    };
    std::printf("Beside a file system that hangs, medians of 20; milliseconds\n"
                "  %-46s %9s %9s %9s\n",
                "", "visible", "provide", "watch");
    measure("alone");
    const auto below = Path::fromNative((stalled / "work").native());
    const auto watch = platform::services()->folderWatcher->watch(
        below, platform::FolderWatcher::Scope::Entries, [](const platform::FolderEvent&) {});
    auto hanging = test::onThread([&] { (void)provider->provideFor(below, "hangs"); });
    measure("while one of its folders is provided");
    ::umount2(stalled.c_str(), MNT_DETACH); // its folders are looked at
    measure("and after it was unmounted");
    ::close(server);
    try {
        test::within(std::move(hanging));
    } catch (const std::exception&) { // it is not there
    }
}

// --- The end ---

void measureRelease(const BigRepository& repository) {
    const ObservedServices services;
    const auto provider = createNewManagedFolderProviderInstance();
    std::vector<double> dropping, watcherGone;
    std::size_t watches = 0, descriptors = 0, kept = 0;
    for (int run = 0; run < 5; ++run) {
        const auto descriptorsBefore = countEntries("/proc/self/fd");
        auto folder = provider->provideFor(rootOf(repository), "only");
        fill(*folder);
        settle(services);
        watches = countWatches();
        descriptors = countEntries("/proc/self/fd") - descriptorsBefore;
        const auto start = Clock::now();
        dropping.push_back(millisecondsOf([&] { folder.reset(); }));
        while (countThreads("quendo-inotify") + countThreads("quendo-watch") + countWatches() != 0)
            if (Clock::now() > start + test::deadline)
                throw std::runtime_error("watches are left");
        watcherGone.push_back(
            std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        kept += countEntries("/proc/self/fd") - descriptorsBefore;
    }
    const auto threads = countEntries("/proc/self/task");
    std::promise<void> over;
    platform::services()->delayedTasks->runAfter(std::chrono::seconds(12),
                                                 [&] { over.set_value(); });
    test::within(over.get_future());
    std::printf("The last reference is dropped, medians of %zu; milliseconds\n"
                "  %-46s %9.1f\n  %-46s %9.1f\n"
                "  %zu watches and %zu descriptors before, 0 and %zu after; threads, with the "
                "main one: %zu, after 12 s %zu\n",
                dropping.size(), "the destructor", median(dropping),
                "until no watch and no thread of them is left", median(watcherGone), watches,
                descriptors, kept, threads, countEntries("/proc/self/task"));
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        std::printf("    left: %s\n", name.c_str());
    }
}

} // namespace

int main(int argc, char** argv) try {
    const auto number = [&](int at, std::size_t otherwise) {
        return argc > at ? static_cast<std::size_t>(std::atoll(argv[at])) : otherwise;
    };
    const auto files = number(1, 100'000), folders = number(2, 5'000);
    const std::string only = argc > 3 ? argv[3] : "";
    if (folders < 50 || files < folders) {
        std::fprintf(
            stderr,
            "usage: quendo_benchmark_pool [FILES [FOLDERS [SECTION]]]\n"
            "FOLDERS: 50 or more, and not more than FILES\n"
            "SECTION: second, first, status, beside, idle, stalled, release; all when left out\n");
        return 2;
    }
    const BigRepository repository(files, folders);
    std::printf("%zu files in %zu folders\n", files, folders);
    bool isFine = true;
    const auto run = [&](const char* section, const auto& measure) {
        if (only.empty() || only == section)
            isFine &= inOwnProcess([&] { measure(repository); });
    };
    run("second", measureSecond);
    run("first", measureFirst);
    run("status", measureStatus);
    run("beside", measureBeside);
    run("idle", measureIdle);
    run("stalled", measureStalled);
    run("release", measureRelease);
    return isFine ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
