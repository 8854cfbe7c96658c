#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/StrandPool.h"
#include "tests/cache/CheckedContents.h"
#include "tests/support/MemoryAdapter.h"

namespace quendo {
namespace {

using Tasks = CMStatusCache::Tasks;
using Cache = JobCombiningCMStatusCache;

constexpr int threadCount = 32;
const Path root{u"/copy"};

class Dice {
public:
    explicit Dice(unsigned seed) : m_random(seed) {}
    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }
    bool oneIn(unsigned count) { return below(count) == 0; }

    // Few, so that what happens to one path meets; folders of one name begin the other's.
    Path folder() {
        static const Path folders[] = {root, root / u"a", root / u"a/b", root / u"a-b",
                                       root / u"c"};
        return folders[below(std::size(folders))];
    }
    Path file() {
        static const char16_t* names[] = {u"one", u"two", u"three", u"b", u".fake"};
        return folder() / names[below(std::size(names))];
    }

private:
    std::mt19937 m_random;
};

/// One working copy, and an adapter that fails and hangs at random while it is wild.
class World : public std::enable_shared_from_this<World> {
public:
    explicit World(unsigned seed) : m_dice(seed) {
        copy.inCall = [this](const auto&...) { query(); };
    }
    ~World() { m_gone.set_value(); }

    /// Ready when every cache has let go of its adapter, and the test of the world.
    std::future<void> gone() { return m_gone.get_future(); }

    std::shared_ptr<Cache> makeCache() {
        auto cache = std::make_shared<Cache>(
            std::make_shared<SingleThreadedCMAdapter>(
                getSourceControlExecutor(), test::makeMemoryAdapter({shared_from_this(), &copy})),
            interactor);
        cache->connectTasksStarted([self = shared_from_this()](const Tasks& tasks) {
            const std::lock_guard lock(self->m_mutex);
            self->m_running = tasks;
        });
        return cache;
    }

    void change(Dice& dice) {
        const auto file = dice.file();
        dice.oneIn(3) ? copy.erase(file) : copy.set(file, LocalStatus(dice.below(8)));
    }

    /// Ends queries that hang, until the end.
    void release() {
        std::unique_lock lock(m_mutex);
        while (m_wild) {
            m_changed.wait(lock, [&] { return m_hangs || !m_wild; });
            if (m_dice.oneIn(2) && !m_running.empty()) {
                const auto task = m_running[m_dice.below(static_cast<unsigned>(m_running.size()))];
                lock.unlock();
                task->cancel();
                lock.lock();
            }
            m_hangs = false;
            m_changed.notify_all();
        }
    }
    void calm() {
        const std::lock_guard lock(m_mutex);
        m_wild = false;
        m_changed.notify_all();
    }

    test::MemoryWorkingCopy copy{root};
    const std::shared_ptr<CMApplicationInteractor> interactor =
        std::make_shared<CMApplicationInteractor>();
    std::atomic<int> stopped{0};

private:
    void query() {
        const auto origin = QueryOrigin::current();
        // Shared with the slot, which may run yet when it is disconnected.
        const auto cancelled = std::make_shared<std::atomic<bool>>(false);
        const boost::signals2::scoped_connection connection =
            interactor->getTerminator().connect([this, cancelled, origin] {
                if (!QueryOrigin::concerns(origin))
                    return;
                const std::lock_guard lock(m_mutex);
                *cancelled = true;
                m_changed.notify_all();
            });
        if (origin->isCancelled())
            *cancelled = true;
        std::unique_lock lock(m_mutex);
        const auto fate = m_wild ? m_dice.below(8) : 0;
        if (fate == 1)
            throw std::runtime_error("mine");
        if (fate == 2)
            throw 5;
        if (fate == 3) {
            m_hangs = true;
            m_changed.notify_all();
            m_changed.wait(lock, [&] { return *cancelled || !m_hangs || !m_wild; });
        }
        if (*cancelled) {
            ++stopped;
            throw exception::OperationCancelledError("stopped");
        }
    }

    std::promise<void> m_gone;
    std::mutex m_mutex; // guards what follows
    std::condition_variable m_changed;
    Dice m_dice;
    bool m_wild = true;
    bool m_hangs = false;
    Tasks m_running;
};

/// One thread's doings with caches; its tasks and listeners.
class Monkey {
public:
    explicit Monkey(unsigned seed) : dice(seed) {}
    ~Monkey() { waitForAll(); }

    void act(const std::shared_ptr<Cache>& cache, World& world) {
        const auto ask = [&](std::shared_ptr<CacheTask> task) { tasks.push_back(std::move(task)); };
        const std::vector<Path> files{dice.file(), dice.file()};
        const std::function<void()> acts[] = {
            [&] { ask(cache->refreshCMStatuses(files)); },
            [&] { ask(cache->refreshFolder(dice.folder())); },
            [&] { ask(cache->loadFolder(dice.folder())); },
            [&] { ask(cache->requireFreshFile(dice.file())); },
            [&] { ask(cache->requireFreshFolder(dice.folder())); },
            [&] { ask(cache->requireFreshFolder(dice.folder())); },
            [&] { cache->setFolderStatusFlag(dice.oneIn(2)); },
            [&] { world.change(dice); },
            [&] { read(*cache); },
            [&] { listen(cache); },
            [&] {
                if (!tasks.empty() && dice.oneIn(2))
                    tasks[dice.below(static_cast<unsigned>(tasks.size()))]->cancel();
            },
            [&] {
                if (dice.oneIn(2))
                    waitForAll();
            }};
        try {
            acts[dice.below(std::size(acts))]();
        } catch (const std::system_error&) {
            ++refused;
        }
    }

    void waitForAll() {
        for (const auto& task : std::exchange(tasks, {})) {
            try {
                task->wait();
            } catch (...) { // of what is thrown at random
            }
        }
    }

    Dice dice;
    Tasks tasks;
    int refused = 0;

private:
    void read(const Cache& cache) {
        const auto folder = dice.folder();
        cache.getCachedStatus(dice.file());
        cache.getModifiedFiles();
        cache.getCachedFiles();
        cache.getFreshness(dice.file());
        // A listing is of one version: its paths differ.
        const auto listing = cache.listStatuses(folder);
        std::set<Path> paths;
        for (const auto& [path, state] : listing.states)
            EXPECT_TRUE(paths.insert(path).second);
        const auto summary = cache.getFolderSummary(folder);
        EXPECT_LE(summary.direct.total(), summary.below.total());
    }

    /// A listener of any kind. It may hold the last reference for a moment.
    void listen(const std::shared_ptr<Cache>& cache) {
        const auto work = [weak = std::weak_ptr(cache), listenerDice = Dice(dice.below(1U << 31)),
                           task = tasks.empty() ? nullptr : tasks.back()](const auto&...) mutable {
            const auto held = weak.lock();
            if (held == nullptr)
                return;
            held->getCachedStatus(listenerDice.file());
            if (task != nullptr && listenerDice.oneIn(8))
                task->cancel();
            if (listenerDice.oneIn(16))
                held->refreshCMStatuses({listenerDice.file()});
            if (listenerDice.oneIn(16))
                throw std::domain_error("mine");
        };
        auto& connection = m_connections[dice.below(std::size(m_connections))];
        const auto kind = dice.below(5);
        connection = kind == 0   ? cache->connectCacheChanged(work)
                     : kind == 1 ? cache->connectTasksStarted(work)
                     : kind == 2 ? cache->connectTasksFinished(work)
                     : kind == 3 ? cache->connectChanges(work)
                                 : cache->connectFoldersChanged(work);
    }

    std::array<boost::signals2::scoped_connection, 2> m_connections;
};

/// Strands that cannot be had a thread for at random.
struct UnwillingExecutors : platform::ExecutorService {
    std::shared_ptr<Executor> getSourceControlExecutor() override {
        return standard->getSourceControlExecutor();
    }
    std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override {
        // A pool of its own, in which every pause ends the thread.
        return platform::StrandPool(
                   {std::chrono::milliseconds(0), [this](auto body) { start(std::move(body)); }})
            .createStrand(name);
    }
    void start(UniqueFunction<void()> body) {
        {
            const std::lock_guard lock(mutex);
            if (!areWilling && dice.oneIn(4))
                throw std::system_error(EAGAIN, std::generic_category());
        }
        platform::startDetachedThread(std::move(body));
    }
    const std::shared_ptr<platform::ExecutorService> standard = platform::services()->executors;
    std::mutex mutex;
    Dice dice{1};
    std::atomic<bool> areWilling = false;
};

// One cache stays to the end; others are stopped, dropped and made anew.
TEST(StormTest, CachesAgreeWithTheAdapterAfterwardsAndLeaveNobodyWaiting) {
    platform::Services services;
    const auto executors = std::make_shared<UnwillingExecutors>();
    services.executors = executors;
    const platform::ScopedServices scoped(services);
    std::atomic<int> stopped = 0, refused = 0;
    // For a few seconds, or for many seeds.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    const auto isOver = [&](unsigned seed) {
        return test::isLong ? seed > 1000 : std::chrono::steady_clock::now() >= end;
    };
    for (unsigned seed = 1; !isOver(seed) && !HasFailure(); ++seed) {
        std::printf("seed %u\n", seed); // what hangs ends the process
        std::fflush(stdout);
        executors->areWilling = false;
        auto shared = std::make_shared<World>(seed);
        auto& world = *shared;
        auto gone = world.gone();
        std::mutex mutex;
        std::array<std::shared_ptr<Cache>, 4> caches{world.makeCache()}; // guarded by it
        auto cache = caches[0];
        // On the strand alone, so without a lock.
        test::Contents replay;
        int wrong = 0;
        cache->connectChanges([&](const StatusChanges& update) {
            for (const auto& [path, before, after] : update.changes) {
                const auto known = replay.find(path);
                const bool isThere = known != replay.end();
                if (isThere != before.has_value() || (isThere && known->second != *before) ||
                    before == after)
                    ++wrong;
                if (after)
                    replay.insert_or_assign(path, *after);
                else
                    replay.erase(path);
            }
        });
        auto releaser = test::onThread([&] { world.release(); });
        test::onThreads(threadCount, [&](int thread) {
            Monkey monkey(seed * threadCount + static_cast<unsigned>(thread));
            for (int i = 0; i < 150; ++i) {
                const auto place = monkey.dice.oneIn(2) ? 0U : monkey.dice.below(caches.size());
                std::shared_ptr<Cache> one;
                if (place != 0 && monkey.dice.oneIn(8))
                    one = world.makeCache();
                {
                    const std::lock_guard lock(mutex);
                    if (one != nullptr)
                        caches[place].swap(one);
                    else
                        one = caches[place];
                }
                if (one == nullptr)
                    continue;
                if (place != 0 && monkey.dice.oneIn(64))
                    one->stop();
                monkey.act(one, world);
            }
            refused += monkey.refused;
        });
        world.calm();
        executors->areWilling = true;
        test::within(std::move(releaser));
        test::within(test::onThread([&] {
            // What listeners have asked for comes first; a job of files joins none of folders.
            for (int i = 0; i < 3; ++i)
                cache->refreshCMStatuses({root / u"a"})->wait();
            cache->setFolderStatusFlag(true);
            cache->refreshAll();
        }));
        EXPECT_EQ(test::checkedContents(*cache, root), world.copy.states);
        EXPECT_EQ(test::checkedContents(*cache, root), replay);
        EXPECT_EQ(wrong, 0);
        stopped += world.stopped;
        cache.reset();
        caches = {};
        shared.reset();
        test::within(std::move(gone));
    }
    EXPECT_GT(stopped, 0);
    EXPECT_GT(refused, 0);
}

} // namespace
} // namespace quendo
