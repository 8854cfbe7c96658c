// What it costs to follow a big working copy: a real repository, the Git adapter in its layers, a
// cache, its updater and the inotify watcher. Each section runs in a process of its own.
//
// quendo_benchmark_change [FILES [FOLDERS [WRITES [SECTION]]]]

#include "benchmarks/FollowedRepository.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <exception>
#include <fstream>
#include <functional>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

namespace {

using namespace quendo;
using namespace quendo::benchmark;
using platform::FolderEvent;
using platform::InotifyFolderWatcher;

double milliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

double quantile(std::vector<double> values, double part) {
    std::ranges::sort(values);
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

/// Lets time pass that is part of what is measured.
void leaveAlone(std::chrono::milliseconds time) {
    std::promise<void> over;
    platform::services()->delayedTasks->runAfter(time, [&] { over.set_value(); });
    test::within(over.get_future());
}

// --- Opening ---

double processorOfProcess() {
    return static_cast<double>(std::clock()) * 1e3 / CLOCKS_PER_SEC;
}

/// What following cannot do without: a watch on each folder, and a look at each entry.
void watchAndLookByHand(const BigRepository& repository) {
    const int inotify = ::inotify_init1(IN_CLOEXEC);
    for (const auto& folder : repository.folders()) {
        ::inotify_add_watch(inotify, folder.c_str(), IN_MODIFY | IN_CREATE | IN_DELETE);
        DIR* const directory = ::opendir(folder.c_str());
        while (const auto* entry = ::readdir(directory)) {
            struct stat status;
            ::fstatat(::dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW);
        }
        ::closedir(directory);
    }
    ::close(inotify);
}

void measureOpening(const BigRepository& repository) {
    const ObservedServices services;
    struct Part {
        const char* name;
        std::vector<double> times, processor;

        void add(const std::function<void()>& work) {
            const double before = processorOfProcess();
            times.push_back(millisecondsOf(work));
            processor.push_back(processorOfProcess() - before);
        }
    };
    std::array parts{Part{"adapter, cache and its first refresh", {}, {}},
                     Part{"following: until all is watched and looked at", {}, {}},
                     Part{"watches and looks by hand", {}, {}}};
    std::size_t queries = 0;
    for (int run = 0; run < 7; ++run) {
        std::optional<FollowedRepository> followed;
        parts[0].add([&] { followed.emplace(repository, services); });
        queries -= followed->adapter->queries();
        parts[1].add([&] {
            followed->follow();
            followed->settle();
        });
        queries += followed->adapter->queries();
        followed.reset();
        parts[2].add([&] { watchAndLookByHand(repository); });
    }
    std::printf("Opening, medians of %zu; milliseconds\n  %-46s %9s %9s %11s\n",
                parts[0].times.size(), "", "median", "longest", "processor");
    for (const auto& part : parts)
        std::printf("  %-46s %9.1f %9.1f %11.1f\n", part.name, median(part.times),
                    *std::ranges::max_element(part.times), median(part.processor));
    std::printf("  following is wanted below 1000; it takes %.2f times what it takes by hand, and "
                "%zu queries\n",
                median(parts[1].times) / median(parts[2].times), queries);
}

// --- The watcher alone ---

/// Figures of one round of watching all folders and dating all files.
struct Watching {
    double watching = 0;  ///< milliseconds to make the watches
    double delivery = 0;  ///< milliseconds from the first file to the last event
    double processor = 0; ///< of all threads meanwhile
    std::size_t events = 0;
};

void dateAll(const BigRepository& repository) {
    for (std::size_t i = 0; i < repository.files().size(); ++i)
        repository.date(i);
}

template <class Deliver>
void timeDelivery(Watching& result, const Deliver& deliver) {
    const double processor = processorOfProcess();
    result.delivery = millisecondsOf(deliver);
    result.processor = processorOfProcess() - processor;
}

Watching watchByLibrary(const BigRepository& repository) {
    InotifyFolderWatcher watcher;
    std::atomic<std::size_t> events = 0, lost = 0;
    std::vector<std::unique_ptr<platform::FolderWatcher::Watch>> watches;
    std::vector<Path> folders;
    for (const auto& folder : repository.folders())
        folders.push_back(Path::fromNative(folder));
    Watching result;
    result.watching = millisecondsOf([&] {
        for (const auto& folder : folders)
            watches.push_back(watcher.watch(
                folder, platform::FolderWatcher::Scope::Entries, [&](const FolderEvent& event) {
                    ++(event.kind == FolderEvent::Kind::ContentsUnknown ? lost : events);
                }));
    });
    timeDelivery(result, [&] {
        dateAll(repository);
        std::promise<void> reached;
        watcher.fence([&] { reached.set_value(); });
        test::within(reached.get_future());
    });
    result.events = events;
    if (lost != 0)
        std::printf("  events of %zu folders were lost\n", lost.load());
    return result;
}

/// As few steps as can be: one thread that reads, until the last file has had its event.
Watching watchByHand(const BigRepository& repository) {
    Watching result;
    const int inotify = ::inotify_init1(IN_CLOEXEC);
    int last = -1;
    result.watching = millisecondsOf([&] {
        for (const auto& folder : repository.folders())
            last = ::inotify_add_watch(inotify, folder.c_str(),
                                       IN_DELETE_SELF | IN_MOVE_SELF | IN_CREATE | IN_DELETE |
                                           IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                           IN_CLOSE_WRITE | IN_ATTRIB);
    });
    const auto& lastFile = repository.files().back();
    const auto lastName = lastFile.substr(lastFile.rfind('/') + 1);
    std::thread reader([&] {
        std::vector<char> buffer(256U << 10U);
        for (bool isOver = false; !isOver;) {
            const auto size = ::read(inotify, buffer.data(), buffer.size());
            for (std::size_t at = 0; std::cmp_less(at, size);) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
                at += sizeof(inotify_event) + event->len;
                isOver |= (event->mask & IN_Q_OVERFLOW) != 0 ||
                          (event->len != 0 && lastName == event->name);
                ++result.events;
            }
        }
    });
    timeDelivery(result, [&] {
        dateAll(repository);
        reader.join();
    });
    ::close(inotify);
    return result;
}

void measureWatcher(const BigRepository& repository) {
    const auto watched = static_cast<double>(repository.folders().size());
    const auto files = static_cast<double>(repository.files().size());
    struct Kind {
        const char* name;
        std::function<Watching()> run;
        std::vector<double> watching, beyond, processor;
        std::size_t events = 0;
    };
    std::array kinds{Kind{"the library", [&] { return watchByLibrary(repository); }, {}, {}, {}},
                     Kind{"reading by hand", [&] { return watchByHand(repository); }, {}, {}, {}}};
    std::vector<double> alone;
    dateAll(repository);
    for (int run = 0; run < 7; ++run) {
        Watching writes;
        timeDelivery(writes, [&] { dateAll(repository); });
        alone.push_back(writes.delivery * 1e3 / files);
        for (auto& kind : kinds) {
            const auto result = kind.run();
            kind.events = result.events;
            kind.watching.push_back(result.watching * 1e3 / watched);
            kind.beyond.push_back((result.delivery - writes.delivery) * 1e3 / files);
            kind.processor.push_back((result.processor - writes.processor) * 1e3 / files);
        }
    }
    std::printf("The watcher alone: %.0f folders, then %.0f changes, medians of %zu\n"
                "  a change itself takes %.2f us\n"
                "  %-18s %12s %12s %18s %10s\n",
                watched, files, alone.size(), median(alone), "", "us a watch", "us an event",
                "processor us", "events");
    for (const auto& kind : kinds)
        std::printf("  %-18s %12.2f %12.2f %18.2f %10zu\n", kind.name, median(kind.watching),
                    median(kind.beyond), median(kind.processor), kind.events);
    std::printf("  %-18s %12.2f %12.2f %18.2f\n", "ratio",
                median(kinds[0].watching) / median(kinds[1].watching),
                median(kinds[0].beyond) / median(kinds[1].beyond),
                median(kinds[0].processor) / median(kinds[1].processor));
    std::printf("  us an event: from the first change to the last event, less the changes alone;\n"
                "  processor us: of all threads beyond the changes alone\n");
    repository.refreshIndex();
}

// --- Latency ---

/// The road of one change, as far as it has got.
struct Road {
    Clock::time_point written, told, started, begun, answered, seen;
};

/// Watches one file at a time on its way into the cache.
class Tracker {
public:
    Tracker(const ObservedServices& services, const FollowedRepository& followed)
        : m_followed(followed) {
        services.onEvent([this](const FolderEvent& event) {
            const std::lock_guard lock(m_mutex);
            if (event.path == m_file && m_road.told == Clock::time_point())
                m_road.told = Clock::now();
        });
        followed.cache->connectTasksStarted(
            [this](const CMStatusCache::Tasks&) { m_started = Clock::now(); });
        followed.cache->connectCacheChanged([this] { look(); });
    }

    /// Writes, and waits until the cache shows `state`.
    Road track(const Path& file, LocalStatus state, const std::function<void()>& write) {
        std::future<void> seen;
        {
            const std::lock_guard lock(m_mutex);
            m_file = file;
            m_wanted = state;
            m_road = {};
            m_seen = std::promise<void>();
            seen = m_seen.get_future();
        }
        write();
        const auto written = Clock::now();
        test::within(std::move(seen));
        m_road.written = written;
        return m_road;
    }

private:
    /// On the cache's strand, as m_started.
    void look() {
        const std::lock_guard lock(m_mutex);
        if (m_file.empty())
            return;
        const auto state = m_followed.cache->getCachedStatus(m_file);
        if (!state || state->getState() != m_wanted)
            return;
        m_road.seen = Clock::now();
        m_road.started = m_started;
        m_road.begun = m_followed.adapter->begin;
        m_road.answered = m_followed.adapter->end;
        m_file = {};
        m_seen.set_value();
    }

    const FollowedRepository& m_followed;
    Clock::time_point m_started;
    std::mutex m_mutex; // guards the rest
    Path m_file;
    LocalStatus m_wanted{};
    Road m_road;
    std::promise<void> m_seen;
};

void printQuantiles(const char* what, const std::vector<double>& values) {
    std::printf("  %-52s %9.2f %9.2f %9zu\n", what, median(values), quantile(values, 0.99),
                values.size());
}

void measureLatency(const BigRepository& repository, std::size_t writes, bool rests) {
    const ObservedServices services;
    FollowedRepository followed(repository, services);
    Tracker tracker(services, followed);
    followed.follow();
    followed.settle();
    const auto& files = repository.files();
    std::vector<Path> paths;
    for (const auto& file : files)
        paths.push_back(Path::fromNative(file));
    test::ProcessOptions options{repository.sandbox().work(), repository.sandbox().environment()};
    std::vector<double> latency, own, git, ratios, above, toHandler, toJob, toAdapter, inAdapter,
        toSignal;
    Random random(5);
    const auto queriesBefore = followed.adapter->queries();
    const std::size_t betweenQueries = 10, betweenGits = std::max<std::size_t>(writes / 200, 1);
    for (std::size_t i = 0; i < writes; ++i) {
        const auto at = random.below(files.size());
        const bool wasModified =
            followed.cache->getCachedStatus(paths[at])->getState() == LocalStatus::Modified;
        const auto road = tracker.track(
            paths[at], wasModified ? LocalStatus::Unmodified : LocalStatus::Modified, [&] {
                overwrite(files[at],
                          wasModified ? repository.original(at) : repository.modified(at));
            });
        latency.push_back(milliseconds(road.seen - road.written));
        inAdapter.push_back(milliseconds(road.answered - road.begun));
        above.push_back(latency.back() - inAdapter.back());
        toHandler.push_back(milliseconds(road.told - road.written));
        toJob.push_back(milliseconds(road.started - road.told));
        toAdapter.push_back(milliseconds(road.begun - road.started));
        toSignal.push_back(milliseconds(road.seen - road.answered));
        const bool asks = i % betweenQueries == 0, runsGit = i % betweenGits == 0;
        if (rests || asks || runsGit)
            followed.settle();
        if (asks)
            own.push_back(
                millisecondsOf([&] { (void)followed.adapter->getStatus(std::vector{paths[at]}); }));
        if (runsGit) {
            git.push_back(millisecondsOf([&] {
                test::runProcess(
                    {"git", "--no-optional-locks", "status", "--porcelain", "--", files[at]},
                    options);
            }));
            ratios.push_back(latency.back() / git.back());
        }
    }
    const auto queries = followed.adapter->queries() - queriesBefore - own.size();
    std::printf("Latency, %s; milliseconds\n  %-52s %9s %9s %9s\n",
                rests ? "each write when all before it has settled"
                      : "each write as soon as the one before is seen",
                "", "median", "99 %", "number");
    printQuantiles("from the end of a write to the cache's signal", latency);
    printQuantiles("the adapter asked for the file, apart from that", own);
    std::printf("  %-52s %9.2f %9.2f   wanted: 2 and 20\n", "above the adapter's own cost",
                median(latency) - median(own), quantile(latency, 0.99) - quantile(own, 0.99));
    printQuantiles("the same, less the query of each write", above);
    printQuantiles("git --no-optional-locks status --porcelain -- FILE", git);
    printQuantiles("ratio to that, write by write", ratios);
    std::printf("  where the time goes:\n");
    printQuantiles("  write to handler (before 0: while it wrote)", toHandler);
    printQuantiles("  handler to job", toJob);
    printQuantiles("  job to adapter", toAdapter);
    printQuantiles("  adapter", inAdapter);
    printQuantiles("  answer to signal, the merge", toSignal);
    std::printf("  queries a write: %.2f\n",
                static_cast<double>(queries) / static_cast<double>(writes));
}

// --- Bursts ---

void measureBurst(const BigRepository& repository, const char* what,
                  const std::function<void()>& burst) {
    static const ObservedServices services;
    FollowedRepository followed(repository, services);
    followed.follow();
    followed.settle();
    auto& adapter = *followed.adapter;
    const auto files = adapter.fileQueries.load(), folders = adapter.folderQueries.load();
    double writing = 0;
    const auto whole = millisecondsOf([&] {
        writing = millisecondsOf(burst);
        followed.settle();
    });
    const auto filesAfter = adapter.fileQueries.load(), foldersAfter = adapter.folderQueries.load();
    std::size_t differences = 0;
    const auto fresh = millisecondsOf([&] { differences = followed.differences(); });
    std::printf("  %-24s %8.0f ms, then %8.0f ms, %.1f times a fresh query; %zu queries of files, "
                "%zu of folders; differences: %zu\n",
                what, writing, whole - writing, (whole - writing) / fresh, filesAfter - files,
                foldersAfter - folders, differences);
}

void measureBursts(const BigRepository& repository) {
    const auto count = repository.filesInFullFolders();
    const auto folders = repository.fullFolders();
    std::printf("Bursts of %zu files in %zu folders: written in, settled after, queries until the "
                "cache equals a fresh one\n",
                count, folders);
    measureBurst(repository, "all written", [&] {
        for (std::size_t i = 0; i < count; ++i)
            overwrite(repository.files()[i], repository.modified(i));
    });
    const auto top = repository.sandbox().work().native() + "/unpacked";
    measureBurst(repository, "unpacked, new folders", [&] {
        for (std::size_t folder = 0; folder < folders; ++folder) {
            const auto path = top + "/package_" + std::to_string(folder);
            std::filesystem::create_directories(path);
            for (std::size_t i = folder; i < count; i += folders)
                overwrite(path + "/file_" + std::to_string(i) + ".cpp", "new\n");
        }
    });
    measureBurst(repository, "all of these deleted", [&] { std::filesystem::remove_all(top); });
    measureBurst(repository, "built, folder by folder", [&] {
        for (std::size_t folder = 0; folder < folders; ++folder) {
            const auto path = repository.folders()[folder] + "/build";
            std::filesystem::create_directories(path);
            for (std::size_t i = folder; i < count; i += folders)
                overwrite(path + "/file_" + std::to_string(i) + ".o", "new\n");
        }
    });
}

// --- Peace ---

void measureIdle(const BigRepository& repository) {
    const ObservedServices services;
    FollowedRepository followed(repository, services);
    followed.follow();
    followed.settle();
    constexpr std::chrono::seconds untilWorkersAreGone{12}, time{20};
    leaveAlone(untilWorkersAreGone);
    const auto queries = followed.adapter->queries();
    const auto usage = [](int who) {
        rusage used{};
        ::getrusage(who, &used);
        return used;
    };
    const auto processor = [](const rusage& used) {
        return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1e3 +
               static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e3;
    };
    const auto before = usage(RUSAGE_SELF), childrenBefore = usage(RUSAGE_CHILDREN);
    leaveAlone(time);
    const auto after = usage(RUSAGE_SELF), childrenAfter = usage(RUSAGE_CHILDREN);
    std::printf("Left alone for %lld s, one timer of the benchmark included\n"
                "  queries            %8zu; wanted: 0\n"
                "  processor time     %8.2f ms, of its children %.2f ms\n"
                "  context switches   %8ld\n",
                static_cast<long long>(time.count()), followed.adapter->queries() - queries,
                processor(after) - processor(before),
                processor(childrenAfter) - processor(childrenBefore),
                after.ru_nvcsw + after.ru_nivcsw - before.ru_nvcsw - before.ru_nivcsw);
}

void measureOwn(const BigRepository& repository) {
    const ObservedServices services;
    FollowedRepository followed(repository, services);
    followed.follow();
    followed.settle();
    std::atomic<std::size_t> notices = 0;
    followed.interactor->getStatusDispatcher().connect([&] { ++notices; });
    constexpr std::chrono::seconds longerThanTheWindow{2};
    constexpr int calls = 50;
    for (int i = 0; i < calls; ++i)
        (void)followed.adapter->getStatus(followed.root, true);
    leaveAlone(longerThanTheWindow);
    const auto own = notices.exchange(0);
    repository.sandbox().git({"commit", "-q", "--allow-empty", "-m", "from outside"});
    leaveAlone(longerThanTheWindow);
    std::printf("Notices of foreign changes\n"
                "  for %d queries of our own          %zu; wanted: 0\n"
                "  for one commit by somebody else    %zu\n",
                calls, own, notices.load());
    followed.settle();
}

// --- Chatty files ---

/// Counts the gits that this process starts from now on: PATH leads to a script that notes each.
class GitCounter {
public:
    explicit GitCounter(const test::GitSandbox& sandbox)
        : m_notes(sandbox.work().parent_path() / "gits") {
        const auto folder = sandbox.work().parent_path() / "counted";
        std::filesystem::create_directory(folder);
        const auto real = test::runProcess({"sh", "-c", "command -v git"}, {}).output;
        const std::string script = "#!/bin/sh\nprintf . >> '" + m_notes.native() + "'\nexec '" +
                                   real.substr(0, real.find('\n')) + "' \"$@\"\n";
        overwrite((folder / "git").native(), script);
        std::filesystem::permissions(folder / "git", std::filesystem::perms::owner_all);
        ::setenv("PATH", (folder.native() + ":" + std::getenv("PATH")).c_str(), 1);
    }
    std::uintmax_t started() const {
        std::error_code none;
        const auto size = std::filesystem::file_size(m_notes, none);
        return none ? 0 : size;
    }

private:
    const std::filesystem::path m_notes;
};

void append(const std::string& file) {
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor < 0 || ::write(descriptor, "more\n", 5) != 5 || ::close(descriptor) != 0)
        throw std::runtime_error("cannot append to " + file);
}

void measureChatty(const BigRepository& repository) {
    const auto& sandbox = repository.sandbox();
    const GitCounter gits(sandbox);
    const auto rules = sandbox.work().native() + "/.gitignore";
    overwrite(rules, "*.log\n");
    const std::string files[] = {sandbox.work().native() + "/some.log",
                                 sandbox.work().native() + "/untracked", repository.files()[0]};
    for (const auto& file : files)
        append(file);
    const ObservedServices services;
    FollowedRepository followed(repository, services);
    followed.follow();
    followed.settle();
    constexpr int appends = 400;
    constexpr std::chrono::milliseconds between{25};
    std::printf("Appends to one file, %d in 10 s\n  %-12s %10s %10s %22s %12s\n", appends, "",
                "gits", "queries", "ms in queries", "differences");
    const char* names[] = {"ignored", "untracked", "tracked"};
    for (std::size_t i = 0; i < std::size(files); ++i) {
        leaveAlone(std::chrono::seconds(5));
        const auto gitsBefore = gits.started();
        const auto queriesBefore = followed.adapter->queries();
        const auto spentBefore = followed.adapter->spent();
        const double took = millisecondsOf([&] {
            for (int n = 0; n < appends; ++n) {
                append(files[i]);
                leaveAlone(between);
            }
        });
        const auto spent = milliseconds(followed.adapter->spent() - spentBefore);
        leaveAlone(std::chrono::seconds(11)); // what is paced comes within 10 s
        followed.settle();
        const auto started = gits.started() - gitsBefore;
        const auto queries = followed.adapter->queries() - queriesBefore;
        std::printf("  %-12s %10ju %10zu %12.0f of %6.0f %12zu\n", names[i], started, queries,
                    spent, took, followed.differences());
    }
    std::filesystem::remove(rules);
    for (const auto* file : {&files[0], &files[1]})
        std::filesystem::remove(*file);
    overwrite(files[2], repository.original(0));
    ::truncate(files[2].c_str(), static_cast<off_t>(repository.original(0).size()));
}

double residentMegabytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            return std::stod(line.substr(6)) / 1024;
    return 0;
}

void measureFlood(const BigRepository& repository) {
    const ObservedServices services;
    FollowedRepository followed(repository, services);
    followed.follow();
    followed.settle();
    std::size_t events = 0;
    services.onEvent([&](const FolderEvent&) { ++events; });
    const auto path = Path::fromNative(repository.files()[0]);
    std::promise<void> opened;
    const auto held = getSourceControlExecutor()->runAsyncTask(
        [gate = opened.get_future().share()] { gate.wait_for(std::chrono::minutes(10)); });
    const auto task = followed.cache->refreshCMStatuses({path});
    const double before = residentMegabytes();
    int descriptors[2];
    for (std::size_t i = 0; i < 2; ++i)
        descriptors[i] = ::open(repository.files()[i].c_str(), O_WRONLY | O_CLOEXEC);
    const auto firstByte = repository.original(0)[0];
    for (int i = 0; i < 300'000; ++i)
        if (::pwrite(descriptors[i % 2], &firstByte, 1, 0) != 1)
            throw std::runtime_error("cannot write");
    for (const int descriptor : descriptors)
        ::close(descriptor);
    services.flushEvents();
    const double during = residentMegabytes();
    opened.set_value();
    const double settling = millisecondsOf([&] {
        task->wait();
        followed.settle();
    });
    std::printf("300,000 writes to two files while a query waits: %zu events; %.0f MB before, %.0f "
                "meanwhile, %.0f after; settled in %.0f ms; differences: %zu\n",
                events, before, during, residentMegabytes(), settling, followed.differences());
}

} // namespace

int main(int argc, char** argv) try {
    const auto number = [&](int at, std::size_t otherwise) {
        return argc > at ? static_cast<std::size_t>(std::atoll(argv[at])) : otherwise;
    };
    const auto files = number(1, 100'000), folders = number(2, 5'000), writes = number(3, 10'000);
    const std::string only = argc > 4 ? argv[4] : "";
    if (folders < 50 || files < folders || writes < 1) {
        std::fprintf(stderr, "usage: quendo_benchmark_change [FILES [FOLDERS [WRITES [SECTION]]]]\n"
                             "FOLDERS: 50 or more, and not more than FILES\n"
                             "SECTION: opening, watcher, latency, chase, idle, own, burst, chatty, "
                             "flood; all when left\n"
                             "out\n");
        return 2;
    }
    const BigRepository repository(files, folders);
    std::printf("%zu files in %zu folders\n", files, folders);
    const auto run = [&](const char* section, const std::function<void()>& work) {
        if (only.empty() || only == section)
            inOwnProcess(work);
    };
    run("opening", [&] { measureOpening(repository); });
    run("watcher", [&] { measureWatcher(repository); });
    run("latency", [&] { measureLatency(repository, writes, true); });
    run("chase", [&] { measureLatency(repository, writes, false); });
    run("idle", [&] { measureIdle(repository); });
    run("own", [&] { measureOwn(repository); });
    run("burst", [&] { measureBursts(repository); });
    run("chatty", [&] { measureChatty(repository); });
    run("flood", [&] { measureFlood(repository); });
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
