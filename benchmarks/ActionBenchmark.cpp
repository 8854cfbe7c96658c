// What an operation costs until the cache shows it, over a real repository, beside the commands
// that a user would type. Each section runs in a process of its own.
//
// quendo_benchmark_action [FILES [FOLDERS [RUNS [SECTION]]]]

#include "benchmarks/FollowedRepository.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/change_detection/DisableChangeDetection.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

namespace {

using namespace quendo;
using namespace quendo::benchmark;

std::string runGit(const BigRepository& repository, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "git");
    const auto result = test::runProcess(
        arguments, {repository.sandbox().work(), repository.sandbox().environment()});
    if (result.exitCode != 0)
        throw std::runtime_error(arguments[1] + ": " + result.errors);
    return result.output;
}

/// Waits for states to become visible in a cache.
class Visible {
public:
    explicit Visible(CMStatusCache& cache)
        : m_cache(cache), m_connection(cache.connectCacheChanged([this] {
              const std::lock_guard lock(m_mutex);
              m_changed.notify_all();
          })) {}

    void waitFor(const Path& file, LocalStatus state) {
        std::unique_lock lock(m_mutex);
        const bool isThere = m_changed.wait_for(lock, test::deadline, [&] {
            const auto cached = m_cache.getCachedStatus(file);
            return cached && cached->getState() == state;
        });
        if (!isThere)
            throw std::runtime_error("the state does not become visible");
    }

private:
    CMStatusCache& m_cache;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    boost::signals2::scoped_connection m_connection;
};

struct Kind {
    const char* name;
    /// Makes a file ready; not measured.
    std::function<void(const std::string& file)> prepare;
    LocalStatus before, after;
    std::function<void(CMAdapter&, const Path&)> operation;
    /// The same on the command line, and the question for the state.
    std::function<void(const std::string& file)> byHand;
};

void measure(const BigRepository& repository, std::size_t runs, const Kind& kind) {
    auto& provider = getSingletonManagedFolderProvider();
    const auto folder =
        provider.provideFor(Path::fromNative(repository.sandbox().work().native()), "benchmark");
    folder->getCache().setFolderStatusFlag(true);
    folder->getCache().refreshAll();
    Visible visible(folder->getCache());
    // What git does by hand is no news here: the refresh that it brings would run beside what is
    // measured.
    const auto prepare = [&](const std::string& file, const Path& path) {
        {
            const auto quiet = disableChangeDetection(folder->getRootFolder());
            kind.prepare(file);
        }
        folder->getCache().refreshCMStatuses({path})->wait();
    };
    std::vector<double> operations, shown, hand, ratios;
    for (std::size_t run = 0; run < runs; ++run) {
        const auto& file = repository.files()[run * 97 % repository.files().size()];
        const auto path = Path::fromNative(file);
        prepare(file, path);
        visible.waitFor(path, kind.before);
        const auto start = Clock::now();
        const auto passed = [&] {
            return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        };
        kind.operation(folder->getAdapter(), path);
        operations.push_back(passed());
        visible.waitFor(path, kind.after);
        shown.push_back(passed());

        prepare(file, path);
        {
            const auto quiet = disableChangeDetection(folder->getRootFolder());
            hand.push_back(millisecondsOf([&] { kind.byHand(file); }));
        }
        ratios.push_back(shown.back() / hand.back());
    }
    std::printf("%s\n  %-46s %9.1f\n  %-46s %9.1f\n  %-46s %9.1f\n  ratio, run by run: %.2f (%.2f "
                "to %.2f)\n",
                kind.name, "until the operation returns", median(operations),
                "until the cache shows it", median(shown), "git by hand, and git status -- FILE",
                median(hand), median(ratios), *std::ranges::min_element(ratios),
                *std::ranges::max_element(ratios));
}

} // namespace

int main(int argc, char** argv) try {
    const auto number = [&](int at, std::size_t otherwise) {
        return argc > at ? static_cast<std::size_t>(std::atoll(argv[at])) : otherwise;
    };
    const auto files = number(1, 100'000), folders = number(2, 5'000), runs = number(3, 15);
    const std::string only = argc > 4 ? argv[4] : "";
    if (folders < 50 || files < folders || runs < 1) {
        std::fprintf(stderr, "usage: quendo_benchmark_action [FILES [FOLDERS [RUNS [SECTION]]]]\n"
                             "FOLDERS: 50 or more, and not more than FILES\n"
                             "SECTION: add, revert, checkin, remove; all when left out\n");
        return 2;
    }
    const BigRepository repository(files, folders);
    std::printf("%zu files in %zu folders, medians of %zu; milliseconds\n", files, folders, runs);
    const auto status = [&](const std::string& file) {
        runGit(repository, {"status", "--porcelain", "--", file});
    };
    const auto edit = [&](const std::string& file) {
        static unsigned counter = 0;
        runGit(repository, {"reset", "-q"});
        overwrite(file, "int x" + std::to_string(++counter % 10) + ";\n");
    };
    const Kind kinds[] = {
        {"add: addFiles of one file",
         [&](const std::string& file) {
             runGit(repository, {"rm", "-q", "--cached", "--ignore-unmatch", "--", file});
             overwrite(file, "new\n");
         },
         LocalStatus::Deleted, LocalStatus::Modified,
         [](CMAdapter& adapter, const Path& path) { adapter.addFiles({path}); },
         [&](const std::string& file) {
             runGit(repository, {"add", "--", file});
             status(file);
         }},
        {"revert: uncheckout of one file", edit, LocalStatus::Modified, LocalStatus::Unmodified,
         [](CMAdapter& adapter, const Path& path) { adapter.uncheckout({path}); },
         [&](const std::string& file) {
             runGit(repository, {"restore", "--", file});
             status(file);
         }},
        {"checkin: of one file", edit, LocalStatus::Modified, LocalStatus::Unmodified,
         [](CMAdapter& adapter, const Path& path) { adapter.checkin(path, u"change"); },
         [&](const std::string& file) {
             runGit(repository, {"commit", "-q", "-m", "change", "--", file});
             status(file);
         }},
        {"remove: removeFiles of one file",
         [&](const std::string& file) {
             runGit(repository, {"reset", "-q"});
             runGit(repository, {"checkout", "-q", "HEAD", "--", file});
         },
         LocalStatus::Unmodified, LocalStatus::Deleted,
         [](CMAdapter& adapter, const Path& path) { adapter.removeFiles({path}); },
         [&](const std::string& file) {
             runGit(repository, {"rm", "-q", "--", file});
             status(file);
         }},
    };
    bool isFine = true;
    for (const auto& kind : kinds)
        if (only.empty() || std::string_view(kind.name).starts_with(only))
            isFine &= inOwnProcess([&] { measure(repository, runs, kind); });
    return isFine ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
