// What a status cache of very many paths costs: memory, looking up by handle and by text, reading
// beside refreshing, what a change touches, combining, full refreshes. The adapter answers from
// memory. Each section runs in a process of its own: the heap of one does not blur another.
//
// quendo_benchmark_cache [PATHS [SECONDS [SECTION]]]

#include "benchmarks/BigTree.h"
#include "benchmarks/BusyCache.h"
#include "benchmarks/Measuring.h"
#include "quendo/cache/PathTrie.h"
#include "quendo/cache/TransactionalFileCache.h"
#include "tests/support/Allocations.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <malloc.h>
#include <memory>
#include <numeric>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace {

using namespace quendo;
using namespace quendo::benchmark;
using Store = TransactionalFileCache<FileState>;

template <class States>
void fill(Store& store, const States& states) {
    Store::Transaction transaction(store);
    for (const auto& [path, state] : states)
        transaction.put(path, state);
    transaction.commit();
}

// --- Memory ---

void measureMemory(const BigTree& tree) {
    const Cache cache(tree, false);
    malloc_trim(0);
    const double heap = heapUse(), resident = processUse("VmRSS");
    const auto perPath = [&](double bytes) { return bytes / static_cast<double>(tree.size()); };
    std::printf("%-34s at rest: heap  resident   trimmed       peak\n", "Memory, bytes a path");
    const auto refresh = [&](const char* what) {
        forgetPeak();
        cache.status->refreshAll();
        const double peak = processUse("VmHWM"), atRest = processUse("VmRSS");
        malloc_trim(0);
        std::printf("  %-38s %6.1f %9.1f %9.1f %10.1f\n", what, perPath(heapUse() - heap),
                    perPath(atRest - resident), perPath(processUse("VmRSS") - resident),
                    perPath(peak - resident));
    };
    refresh("after the first full refresh");
    refresh("after another, nothing changed");
    cache.adapter->folderRound = 1;
    refresh("after another, all states changed");
}

void measureParts(const BigTree& tree) {
    double before = heapUse();
    const auto tell = [&](const char* what, double less) {
        const double now = heapUse();
        std::printf("  %-38s %6.1f\n", what,
                    (now - before) / static_cast<double>(tree.size()) - less);
        before = now;
    };
    std::printf("Its parts, heap bytes a path\n");
    std::vector<Path> paths;
    for (std::size_t i = 0; i < tree.size(); ++i)
        paths.push_back(tree.pathOf(i));
    tell("texts",
         static_cast<double>(paths.capacity() * sizeof(Path)) / static_cast<double>(tree.size()));
    PathTrie<FileState> states;
    for (const auto& path : paths)
        states.put(path, stateOf(path, 0));
    tell("trie of states", 0);
    Store store;
    {
        Store::Transaction transaction(store);
        for (const auto& path : paths)
            transaction.put(path, stateOf(path, 0));
        transaction.commit();
    }
    states = {}; // the store has one as well
    tell("folders, and texts of its own", 0);
}

// --- Look-ups ---

void measureLookUps(const BigTree& tree) {
    const Cache cache(tree);
    const auto listing = cache.list().states;
    const auto handles = cache.status->getCachedFiles();
    std::vector<Path> equal;
    std::vector<std::u16string> keys;
    for (const auto& path : handles) {
        equal.emplace_back(path.string());
        keys.emplace_back(path.string());
    }
    std::unordered_map<std::u16string, FileState> map;
    for (const auto& [path, state] : listing)
        map.emplace(path.string(), state);
    std::vector<std::size_t> order(handles.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    Random random(3);
    for (std::size_t i = order.size(); i > 1; --i)
        std::swap(order[i - 1], order[random.below(i)]);

    struct Kind {
        const char* name;
        std::function<bool(std::size_t)> lookUp;
        std::vector<double> times, ratios;
    };
    const auto& status = *cache.status;
    std::array kinds{Kind{"std::unordered_map, by text",
                          [&](auto i) {
                              const auto at = map.find(keys[i]);
                              return at != map.end() && std::optional(at->second).has_value();
                          },
                          {},
                          {}},
                     Kind{"getCachedStatus, by handle",
                          [&](auto i) { return status.getCachedStatus(handles[i]).has_value(); },
                          {},
                          {}},
                     Kind{"getCachedStatus, by a Path made apart",
                          [&](auto i) { return status.getCachedStatus(equal[i]).has_value(); },
                          {},
                          {}}};
    for (int round = 0; round < 9; ++round) {
        for (auto& kind : kinds) {
            std::size_t found = 0;
            const auto time = processorMillisecondsOf([&] {
                for (const auto i : order)
                    found += kind.lookUp(i);
            });
            kind.times.push_back(time * 1e6 / static_cast<double>(found));
            kind.ratios.push_back(kind.times.back() / kinds.front().times.back());
        }
    }
    std::printf("Look-ups in random order, processor time; the ratio is round by round\n");
    for (const auto& kind : kinds)
        std::printf("  %-43s %6.0f ns %6.2f (%.2f to %.2f)\n", kind.name, median(kind.times),
                    median(kind.ratios), *std::ranges::min_element(kind.ratios),
                    *std::ranges::max_element(kind.ratios));
}

// --- Readers ---

void measureReaders(const BigTree& tree, double seconds) {
    const Cache cache(tree);
    const auto paths = cache.status->getCachedFiles();
    const auto folder = BigTree::root().child(tree.folderOf(1000, 3));
    Store store;
    fill(store, cache.list().states);
    const auto version = store.version();
    const auto read = [&](std::size_t i) { (void)cache.status->getCachedStatus(paths[i]); };
    const auto readVersion = [&](std::size_t i) { (void)version.find(paths[i]); };
    const auto nothing = [](std::size_t) {};
    Histogram clock, quiet, busy, busyOne, busyVersion, busyNothing;
    LoadCounts counts, others;
    constexpr int rounds = 4;
    const auto time = [&](Histogram& total, std::size_t threads, const auto& operation) {
        timeCalls(total, threads, seconds / rounds, paths.size(), operation);
    };
    for (int round = 0; round < rounds; ++round) {
        time(clock, 2, nothing);
        time(quiet, 2, read);
        {
            const Load load(cache, paths, folder, counts);
            time(busy, 2, read);
        }
        const Load load(cache, paths, folder, others);
        time(busyOne, 1, read);
        time(busyVersion, 2, readVersion);
        time(busyNothing, 2, nothing);
    }
    const double own = clock.quantile(0.5);
    Histogram::printHeading("getCachedStatus");
    quiet.print("quiet, two readers", own);
    busy.print("beside the load, two readers", own);
    busyOne.print("beside the load, one reader", own);
    busyVersion.print("beside the load, a version: without the lock", own);
    busyNothing.print("beside the load, nothing is called", own);
    clock.print("quiet, nothing is called", own);
    const auto ratio = [&](double part) {
        return (busy.quantile(part) - own) / (quiet.quantile(part) - own);
    };
    std::printf("  The clock's own %.0f ns are taken off.\n"
                "  Two readers, load to quiet: median %.2f, 99 %% %.2f, 99.9 %% %.2f\n"
                "  meanwhile %zu refreshes of a file, %zu of a folder of 1000, %zu listings\n",
                own, ratio(0.5), ratio(0.99), ratio(0.999), counts.files.load(),
                counts.folders.load(), counts.listings.load());
}

/// How long a writer waits for readers, who come without pause, and they for the writer.
void measureWriter(const BigTree& tree, double seconds) {
    Store store;
    fill(store, answerOf(tree, "", 0));
    std::vector<Path> paths;
    store.version().forEach([&](const Path& path, const auto&) { paths.push_back(path); });
    Random random(7);
    const auto find = [&](std::size_t i) { (void)store.find(paths[i]); };
    const auto beside = [&](Histogram& reads, auto&& work) {
        std::thread readers([&] { timeCalls(reads, 2, seconds / 3, paths.size(), find); });
        for (const auto end = after(seconds / 3); Clock::now() < end;)
            work();
        readers.join();
    };
    const auto timed = [](Histogram& result, auto&& work) {
        const auto start = Clock::now();
        work();
        result.add(Clock::now() - start);
    };
    const auto write = [&](Histogram& result) {
        const auto& path = paths[random.below(paths.size())];
        const auto state = store.find(path);
        Store::Transaction transaction(store);
        transaction.put(path, FileState(state->getState(), !state->isFolder()));
        timed(result, [&] { transaction.commit(); });
    };
    Histogram alone, reads, commits, readsBesideLock, locks;
    for (const auto end = after(seconds / 3); Clock::now() < end;)
        write(alone);
    beside(reads, [&] { write(commits); });
    beside(readsBesideLock, [&] {
        for (int i = 0; i < 20; ++i) // so that the readers come in between
            find(random.below(paths.size()));
        timed(locks, [&] { (void)store.lock().write(); });
    });
    Histogram::printHeading("The store: a writer beside two readers");
    alone.print("commit() of one entry, no readers");
    commits.print("commit() of one entry");
    reads.print("  find() meanwhile");
    locks.print("the write side, taken and released");
    readsBesideLock.print("  find() meanwhile");
}

// --- What a change touches ---

void measureChange(Store& store, const BigTree& tree, const std::string& folder, const Path& file) {
    const auto path = BigTree::root().child(folder);
    std::size_t files = 0, touched = 0, allocations = 0;
    std::vector<double> times;
    for (unsigned round = 1; round <= 200; ++round) {
        const auto answer = file.empty() ? answerOf(tree, folder, round)
                                         : std::map<Path, FileState>{{file, stateOf(file, round)}};
        files = answer.size();
        const auto before = test::allocationCount;
        times.push_back(millisecondsOf([&] {
            Store::Transaction transaction(store);
            if (file.empty())
                transaction.replace(path, answer);
            else
                transaction.merge(answer);
            transaction.commit();
            touched = transaction.touched();
        }));
        allocations = test::allocationCount - before;
    }
    std::printf("  %9zu %7s of %4zu %9zu %12zu %9.1f us\n", tree.size(),
                file.empty() ? "folder" : "files", files, touched, allocations,
                median(times) * 1000);
}

void measureTouched(const BigTree& full) {
    std::printf("    Paths        change   touched  allocations    time; none is touched under the "
                "lock\n");
    for (const std::size_t part : {100, 10, 1}) {
        const BigTree tree(full.size() / part);
        Store store;
        fill(store, answerOf(tree, "", 0));
        const auto small = tree.folderOf(20, 5);
        measureChange(store, tree, {}, tree.pathOf(tree.rangeOf(small).first));
        measureChange(store, tree, small, {});
        measureChange(store, tree, tree.folderOf(1000, 3), {});
    }
}

// --- Combining ---

/// A cache whose adapter waits in its first query of files.
struct HeldCache : Cache {
    explicit HeldCache(const BigTree& tree) : Cache(tree) {
        adapter->beforeFiles = [this] {
            if (adapter->fileQueries == 1) {
                entered.set_value();
                gate.get_future().wait();
            }
        };
        first = status->refreshCMStatuses({paths.front()});
        entered.get_future().wait();
    }
    std::promise<void> entered, gate;
    std::shared_ptr<CacheTask> first;
    const std::vector<Path> paths = status->getCachedFiles();
};

/// @return milliseconds from the gate's opening to the end of the last wait()
double measureCombining(const BigTree& tree, std::size_t requests, bool cancels) {
    HeldCache cache(tree);
    cache.adapter->fileRound = 1;
    CMStatusCache::Tasks tasks;
    tasks.reserve(requests);
    const double submission = millisecondsOf([&] {
        for (std::size_t i = 0; i < requests; ++i)
            tasks.push_back(cache.status->refreshCMStatuses({cache.paths[i]}));
    });
    if (cancels)
        tasks.back()->cancel();
    const double rest = millisecondsOf([&] {
        cache.gate.set_value();
        for (const auto& task : tasks)
            task->wait();
    });
    std::printf("  %6zu, %-12s submitted in %6.1f ms, then %7.1f ms and %zu query\n", requests,
                cancels ? "cancelled:" : "answered:", submission, rest,
                cache.adapter->fileQueries.load() - 1);
    return rest;
}

/// Two threads submit while what waits is taken: how long may a call last?
void measureSubmitters(const BigTree& tree, std::size_t requests) {
    HeldCache cache(tree);
    for (std::size_t i = 0; i < requests; ++i)
        cache.status->refreshCMStatuses({cache.paths[i]});
    const auto submit = [&] {
        Histogram result;
        for (std::size_t i = 0; i < requests; ++i) {
            const std::vector<Path> files{cache.paths[i]};
            const auto start = Clock::now();
            cache.status->refreshCMStatuses(files);
            result.add(Clock::now() - start);
        }
        return result;
    };
    auto other = std::async(std::launch::async, submit);
    cache.gate.set_value();
    auto calls = submit();
    calls.add(other.get());
    cache.status->refreshCMStatuses({cache.paths.front()})->wait();
    Histogram::printHeading("refreshCMStatuses()");
    calls.print("two threads, while what waits is taken");
}

void measureCombinings(const BigTree& tree) {
    std::printf("Requests for one file each, behind a query\n");
    for (const bool cancels : {true, false}) {
        const double few = measureCombining(tree, 10'000, cancels);
        const double many = measureCombining(tree, 100'000, cancels);
        std::printf("  ten times as many take %.1f times as long\n", many / few);
    }
    measureSubmitters(tree, 100'000);
}

// --- Full refresh ---

void measureFullRefresh(const BigTree& tree) {
    const Cache cache(tree, false);
    auto& adapter = *cache.adapter;
    std::printf("Full refresh                  adapter    the rest\n");
    const auto refresh = [&](const char* what) {
        const double whole = millisecondsOf([&] { cache.status->refreshAll(); });
        std::printf("  %-24s %7.0f ms %8.0f ms\n", what, adapter.folderTime.load(),
                    whole - adapter.folderTime);
    };
    refresh("the first");
    refresh("nothing has changed");
    adapter.skipped = 1;
    refresh("one file has gone");
    adapter.skipped = 0;
    refresh("it is back");
    adapter.folderRound = 1;
    refresh("all states have changed");
}

} // namespace

int main(int argc, char** argv) {
    const int paths = argc > 1 ? std::atoi(argv[1]) : 1'000'000;
    const double seconds = argc > 2 ? std::atof(argv[2]) : 10;
    const std::string only = argc > 3 ? argv[3] : "";
    if (paths < 100'000 || seconds <= 0) {
        std::fprintf(stderr, "usage: quendo_benchmark_cache [PATHS [SECONDS [SECTION]]]\n"
                             "PATHS: 100000 or more\n"
                             "SECTION: memory, lookups, readers, writer, touched, combining, "
                             "refresh; all when left out\n");
        return 2;
    }
    const BigTree tree(static_cast<std::size_t>(paths));
    std::printf("%zu paths of %.1f bytes on average\n", tree.size(), tree.meanSize());
    const auto run = [&](const char* section, const std::function<void()>& work) {
        if (only.empty() || only == section)
            inOwnProcess(work);
    };
    run("memory", [&] { measureMemory(tree); });
    run("memory", [&] { measureParts(tree); });
    run("lookups", [&] { measureLookUps(tree); });
    run("readers", [&] { measureReaders(tree, seconds); });
    run("writer", [&] { measureWriter(tree, seconds); });
    run("touched", [&] { measureTouched(tree); });
    run("combining", [&] { measureCombinings(tree); });
    run("refresh", [&] { measureFullRefresh(tree); });
    return 0;
}
