// A host with many working copies under load: clients read, refresh and act while a user's programs
// edit files everywhere. Prints what each of them waits for, how many gits were started, and which
// caches are wrong two seconds after the last edit.
//
// quendo_benchmark_load [SECONDS [WORKING-COPIES [EDITS-A-SECOND]]]

#include "benchmarks/FollowedRepository.h"
#include "quendo/adapter/CMAdapter.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/exception/SourceControlException.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/States.h"

#include <condition_variable>
#include <filesystem>
#include <thread>

namespace {

using namespace quendo;
using namespace quendo::benchmark;
namespace fs = std::filesystem;

constexpr std::size_t clients = 64, files = 20;

/// Counts every git that is started through the PATH.
class GitCounter {
public:
    GitCounter() {
        const auto bin = m_folder.path() / "bin";
        fs::create_directory(bin);
        fs::copy_file(QUENDO_COUNTING_GIT, bin / "git");
        ::setenv("QUENDO_REAL_GIT", "/usr/bin/git", 1);
        ::setenv("QUENDO_GIT_COUNT", (m_folder.path() / "count").c_str(), 1);
        const char* path = std::getenv("PATH");
        ::setenv("PATH", (bin.native() + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(),
                 1);
    }
    std::uintmax_t count() const {
        std::error_code none;
        const auto size = fs::file_size(m_folder.path() / "count", none);
        return none ? 0 : size;
    }

private:
    const test::TemporaryFolder m_folder;
};

/// Many small repositories, each with `files` tracked files in four folders.
class Repositories {
public:
    explicit Repositories(std::size_t count) {
        m_sandbox.enterEnvironment();
        const auto first = m_sandbox.root() / "0";
        m_sandbox.init({"--template="}, first);
        for (std::size_t i = 0; i < files; ++i)
            test::writeFile(first / nameOf(i), "int value;\n");
        test::writeFile(first / ".gitignore", "*.log\n");
        m_sandbox.commitAll("files", first);
        for (std::size_t i = 1; i < count; ++i)
            fs::copy(first, folder(i), fs::copy_options::recursive);
    }
    fs::path folder(std::size_t i) const { return m_sandbox.root() / std::to_string(i); }
    static std::string nameOf(std::size_t file) {
        return "d" + std::to_string(file % 4) + "/f" + std::to_string(file) + ".cpp";
    }

private:
    test::GitSandbox m_sandbox;
};

struct Figures {
    Histogram reads, refreshes, actions;
    std::size_t refused = 0; ///< actions
};

/// Ends the load.
struct End {
    std::mutex mutex;
    std::condition_variable came;
    bool isThere = false;
    /// @return false when the end has come
    bool wait(std::chrono::microseconds time) {
        std::unique_lock lock(mutex);
        return !came.wait_for(lock, time, [&] { return isThere; });
    }
    void come() {
        const std::lock_guard lock(mutex);
        isThere = true;
        came.notify_all();
    }
};

void edit(const fs::path& file, Random& random) {
    switch (random.below(10)) {
    case 0: {
        std::error_code gone;
        fs::remove(file, gone);
        break;
    }
    case 1:
        test::writeFile(file.native() + ".new", "int other;\n");
        break;
    default:
        test::writeFile(file, "int value_" + std::to_string(random.below(1000)) + ";\n");
    }
}

int measure(int seconds, std::size_t count, int editsPerSecond) {
    const GitCounter gits;
    const Repositories repositories(count);
    const auto provider = createNewManagedFolderProviderInstance();
    std::vector<std::shared_ptr<ManagedFolder>> folders;
    for (std::size_t i = 0; i < count; ++i) {
        folders.push_back(provider->provideFor(
            Path::fromNative(fs::canonical(repositories.folder(i)).native()), "benchmark"));
        folders.back()->getCache().setFolderStatusFlag(true);
        folders.back()->getCache().refreshFolder(folders.back()->getRootFolder())->wait();
    }
    const auto atFirst = gits.count();
    std::printf("%zu working copies were opened with %ju gits; %zu clients, %d edits a second, "
                "%d s\n",
                count, atFirst, clients, editsPerSecond, seconds);

    End end;
    const auto client = [&](std::size_t number) {
        Figures mine;
        Random random(number + 1);
        const auto timed = [](Histogram& into, const auto& work) {
            const auto start = Clock::now();
            work();
            into.add(Clock::now() - start);
        };
        while (end.wait(std::chrono::milliseconds(15 + random.below(10)))) {
            for (int i = 0; i < 50; ++i) {
                const auto& folder = *folders[random.below(count)];
                const auto file =
                    folder.getRootFolder().child(Repositories::nameOf(random.below(files)));
                timed(mine.reads, [&] { folder.getCache().getCachedStatus(file); });
            }
            const auto which = random.below(count);
            auto& folder = *folders[which];
            const auto file =
                folder.getRootFolder().child(Repositories::nameOf(random.below(files)));
            if (random.below(800) == 0)
                timed(mine.refreshes, [&] { folder.getCache().refreshCMStatuses({file})->wait(); });
            if (random.below(3200) == 0)
                timed(mine.actions, [&] {
                    try {
                        if (random.below(2) == 0)
                            folder.getAdapter().addFiles({file});
                        else
                            folder.getAdapter().checkin(file, u"benchmark");
                    } catch (const exception::SourceControlException&) {
                        ++mine.refused; // nothing to check in, a file that has gone
                    }
                });
        }
        return mine;
    };
    std::vector<std::future<Figures>> running;
    for (std::size_t i = 0; i < clients; ++i)
        running.push_back(std::async(std::launch::async, client, i));
    Random random(4711);
    const auto stop = after(seconds);
    std::size_t edits = 0;
    for (auto next = Clock::now(); next < stop; ++edits) {
        edit(repositories.folder(random.below(count)) / Repositories::nameOf(random.below(files)),
             random);
        next += std::chrono::microseconds(1'000'000 / editsPerSecond);
        end.wait(std::chrono::ceil<std::chrono::microseconds>(
            std::max(Clock::duration::zero(), next - Clock::now())));
    }
    end.come();
    Figures all;
    for (auto& one : running) {
        const auto figures = one.get();
        all.reads.add(figures.reads);
        all.refreshes.add(figures.refreshes);
        all.actions.add(figures.actions);
        all.refused += figures.refused;
    }
    const auto started = gits.count() - atFirst;

    // The caches have until then; afterwards they are compared with fresh queries one by one.
    const auto ended = Clock::now();
    const auto freshnessOf = [&](std::size_t i) -> const CMStatusCacheFreshness& {
        return dynamic_cast<const CMStatusCacheFreshness&>(folders[i]->getCache());
    };
    std::this_thread::sleep_until(ended + std::chrono::seconds(2));
    std::vector<std::map<Path, FileState>> cached(count);
    std::vector<bool> isStale(count);
    for (std::size_t i = 0; i < count; ++i) {
        isStale[i] = freshnessOf(i).getStaleness().has_value();
        for (const auto& path : folders[i]->getCache().getCachedFiles())
            if (const auto state = folders[i]->getCache().getCachedStatus(path))
                cached[i].emplace(path, *state);
    }
    const auto anyIsStale = [&] {
        for (std::size_t i = 0; i < count; ++i)
            if (freshnessOf(i).getStaleness())
                return true;
        return false;
    };
    // Ten milliseconds are the precision of the figure.
    while (anyIsStale() && Clock::now() < ended + std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::chrono::duration<double> allRight = Clock::now() - ended;
    std::size_t wrong = 0, announced = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const auto asked = folders[i]->getAdapter().getStatus(folders[i]->getRootFolder(), true);
        const auto text = test::differences(cached[i], asked);
        if (text.empty())
            continue;
        ++wrong;
        announced += isStale[i] ? 1 : 0;
        if (!isStale[i])
            std::printf("%s", text.c_str());
    }
    Histogram::printHeading("what a client waits for");
    all.reads.print("read a cached state   (99 % below 0.1 ms)");
    all.refreshes.print("refresh a file        (99 % below 1 s)");
    all.actions.print("add, check in         (99 % below 3 s)");
    std::printf("%zu edits; %ju gits, %.2f an edit; %zu actions refused\n", edits, started,
                static_cast<double>(started) / static_cast<double>(edits), all.refused);
    std::printf("wrong 2 s after the end: %zu of %zu caches, of which %zu say so\n", wrong, count,
                announced);
    std::printf("none says that it may be wrong: after %.1f s\n", allRight.count());
    return wrong == 0 ? 0 : 1;
}

} // namespace

int main(int count, char** arguments) try {
    const auto number = [&](int which, long standard) {
        return count > which ? std::strtol(arguments[which], nullptr, 10) : standard;
    };
    const auto seconds = number(1, 480), copies = number(2, 200), edits = number(3, 50);
    if (seconds < 1 || copies < 1 || edits < 1 || count > 4) {
        std::fprintf(stderr,
                     "usage: quendo_benchmark_load [SECONDS [WORKING-COPIES [EDITS-A-SECOND]]]\n");
        return 2;
    }
    return measure(static_cast<int>(seconds), static_cast<std::size_t>(copies),
                   static_cast<int>(edits));
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
