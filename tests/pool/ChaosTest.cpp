#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/CacheTask.h"
#include "quendo/exception/SourceControlException.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/RandomWork.h"
#include "tests/support/RealFolder.h"
#include "tests/support/States.h"

namespace quendo {
namespace {

using namespace std::chrono_literals;

// Stands in front of git and does what its folder's file "mode" says.
constexpr const char* faultyGit = R"sh(#!/bin/sh
mode() { read -r m < 'DIR/mode'; echo "$m"; }
case $(mode) in
fail) echo 'fatal: out of order' >&2; exit 128 ;;
crash) kill -SEGV $$ ;;
lie) printf '1 .M N... 100644 nonsense\0# ?? \0\0'; exit 0 ;;
cut) /usr/bin/git "$@" | head -c 20; exit 0 ;;
hang) while [ "$(mode)" = hang ]; do sleep 0.05; done ;;
slow) sleep 0.1 ;;
esac
exec /usr/bin/git "$@"
)sh";

/// Loses events while it is told to, and reports that the contents are unknown afterwards, as after
/// an overflow of the kernel's queue.
class LossyWatcher final : public platform::FolderWatcher {
public:
    explicit LossyWatcher(std::shared_ptr<platform::FolderWatcher> real)
        : m_real(std::move(real)) {}

    std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback) override {
        const auto entry = std::make_shared<Entry>();
        entry->folder = folder;
        entry->callback = std::move(callback);
        {
            const std::lock_guard lock(m_state->mutex);
            m_state->entries.push_back(entry);
        }
        return m_real->watch(folder, scope,
                             [entry, state = m_state](const platform::FolderEvent& event) {
                                 if (state->loses)
                                     entry->hasLost = true;
                                 else
                                     entry->callback(event);
                             });
    }
    void fence(UniqueFunction<void()> reached) override { m_real->fence(std::move(reached)); }
    platform::WatchHealth getHealth(const Path& folder) const override {
        return m_real->getHealth(folder);
    }
    boost::signals2::connection connectHealthChanged(const HealthSlot& slot) override {
        return m_real->connectHealthChanged(slot);
    }

    void lose() { m_state->loses = true; }
    /// Ends the losses, on the thread that delivers events.
    void report() {
        m_real->fence([state = m_state] {
            state->loses = false;
            std::list<std::shared_ptr<Entry>> entries;
            {
                const std::lock_guard lock(state->mutex);
                std::erase_if(state->entries, [](const auto& each) { return each.expired(); });
                for (const auto& each : state->entries)
                    if (auto entry = each.lock();
                        entry != nullptr && entry->hasLost.exchange(false))
                        entries.push_back(std::move(entry));
            }
            for (const auto& entry : entries)
                entry->callback(
                    {platform::FolderEvent::Kind::ContentsUnknown, entry->folder, false});
        });
    }

private:
    struct Entry {
        Path folder;
        Callback callback;
        std::atomic<bool> hasLost = false;
    };
    struct State {
        std::atomic<bool> loses = false;
        std::mutex mutex;
        std::list<std::weak_ptr<Entry>> entries; ///< guarded by it
    };
    const std::shared_ptr<platform::FolderWatcher> m_real;
    const std::shared_ptr<State> m_state = std::make_shared<State>();
};

/// A working copy whose git is faulty at random, with clients that are rude at random.
class Chaos {
public:
    explicit Chaos(unsigned seed) : m_seed(seed), m_work(m_sandbox, seed) {
        m_sandbox.enterEnvironment();
        m_sandbox.init();
        m_work.act(20);
        const auto bin = m_sandbox.root() / "bin";
        std::string script = faultyGit;
        for (auto at = script.find("DIR"); at != script.npos; at = script.find("DIR"))
            script.replace(at, 3, bin.native());
        test::writeFile(bin / "git", script);
        fs::permissions(bin / "git", fs::perms::owner_all);
        setMode("good");
        git::GitOptions options;
        options.executable = bin / "git";
        m_factory = std::make_shared<test::HookedGitFactory>(options);
        m_real.services.factorySources = std::make_shared<test::FakeSources>(m_factory);
        m_watcher = std::make_shared<LossyWatcher>(m_real.services.folderWatcher);
        m_real.services.folderWatcher = m_watcher;
        m_provider = createNewManagedFolderProviderInstance(m_real.services);
    }
    ~Chaos() { setMode("good"); }

    void run(unsigned rounds) {
        const test::FollowedFolder followed(m_provider->provideFor(root()));
        std::atomic<bool> ends = false;
        std::vector<std::future<void>> clients;
        for (unsigned i = 0; i < 4; ++i)
            clients.push_back(test::onThread([this, &ends, i] { behaveRudely(i, ends); }));
        for (unsigned round = 0; round < rounds; ++round) {
            static constexpr const char* modes[] = {"good", "fail", "crash", "lie",
                                                    "cut",  "hang", "slow"};
            m_mode = modes[m_work.below(std::size(modes))];
            setMode(m_mode);
            if (m_work.below(3) == 0)
                m_watcher->lose();
            m_made += m_mode + ":\n" + m_work.act(1 + m_work.below(6));
            m_watcher->report();
            expectRightOrAnnounced(followed);
        }
        setMode("good");
        ends = true;
        for (auto& client : clients)
            test::within(std::move(client)); // nobody waits for ever
        expectRightSoon(followed);
    }

private:
    Path root() const { return Path::fromNative(m_sandbox.work().native()); }

    void setMode(const std::string& mode) const {
        const auto file = m_sandbox.root() / "bin/mode";
        test::writeFile(file.native() + ".new", mode + "\n");
        fs::rename(file.native() + ".new", file);
    }

    /// As the real git sees it, whatever the faulty one does.
    std::map<Path, FileState> truth() const {
        const auto adapter = git::GitAdapterFactory().createAdapter(
            root(), std::make_shared<CMApplicationInteractor>());
        return adapter->getStatus(root(), true);
    }

    std::string wrong(const test::FollowedFolder& followed) const {
        return test::differences(followed.cached(), truth());
    }

    /// A cache that is wrong says so, or is right in a moment.
    void expectRightOrAnnounced(const test::FollowedFolder& followed) const {
        auto& freshness = dynamic_cast<CMStatusCacheFreshness&>(followed.cache);
        std::string text;
        const auto end = std::chrono::steady_clock::now() + (test::isLong ? 10s : 60s);
        while (std::chrono::steady_clock::now() < end) {
            if (freshness.getStaleness())
                return;
            text = wrong(followed);
            if (text.empty())
                return;
        }
        ADD_FAILURE() << "wrong in silence: " << text << "seed " << m_seed << ", while git is "
                      << m_mode << "\n"
                      << m_made;
    }

    void expectRightSoon(const test::FollowedFolder& followed) const {
        const auto begin = std::chrono::steady_clock::now();
        auto& freshness = dynamic_cast<CMStatusCacheFreshness&>(followed.cache);
        std::string text;
        do {
            text = wrong(followed);
            if (text.empty() && !freshness.getStaleness()) {
                const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
                std::printf("seed %u: right after %.2f s\n", m_seed, took.count());
                return;
            }
        } while (std::chrono::steady_clock::now() < begin + (test::isLong ? 10s : 60s));
        const auto stale = freshness.getStaleness();
        ADD_FAILURE() << "not right in the end: " << text << "seed " << m_seed
                      << (stale ? ", still says that it is stale\n" : "\n") << m_made;
    }

    /// A client that cancels, throws, disconnects and drops what it has, at random.
    void behaveRudely(unsigned number, const std::atomic<bool>& ends) const {
        std::mt19937 random(m_seed * 10 + number);
        const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
        static constexpr const char16_t* names[] = {u"a", u"b.log", u"c d", u"e/f", u"e/g/h", u"e"};
        std::shared_ptr<ManagedFolder> folder;
        std::vector<boost::signals2::scoped_connection> connections;
        std::vector<std::shared_ptr<CacheTask>> tasks;
        while (!ends) {
            try {
                if (folder == nullptr)
                    folder = m_provider->provideFor(root(), "client");
                auto& cache = folder->getCache();
                auto& freshness = dynamic_cast<CMStatusCacheFreshness&>(cache);
                const auto path = root() / names[below(std::size(names))];
                switch (below(12)) {
                case 0:
                    tasks.push_back(cache.refreshCMStatuses({path, root() / u"a"}));
                    break;
                case 1:
                    tasks.push_back(cache.refreshFolder(below(3) == 0 ? root() : path));
                    break;
                case 2:
                    tasks.push_back(freshness.requireFreshFile(path));
                    break;
                case 3:
                case 4:
                    if (!tasks.empty())
                        tasks[below(static_cast<unsigned>(tasks.size()))]->cancel();
                    break;
                case 5:
                    if (!tasks.empty()) {
                        const auto task = tasks.back();
                        tasks.pop_back();
                        task->wait();
                    }
                    break;
                case 6:
                    tasks.clear();
                    break;
                case 7:
                    connections.emplace_back(cache.connectCacheChanged(
                        [] { throw std::runtime_error("a listener that throws"); }));
                    break;
                case 8:
                    connections.clear();
                    break;
                case 9:
                    folder = nullptr;
                    break;
                case 10:
                    folder->getAdapter().addFiles({path});
                    break;
                default:
                    cache.getCachedStatus(path);
                    folder->getStatusTrigger().trigger();
                }
            } catch (const std::exception&) {
                // the faulty git's, or those of listeners: nothing that a client can do about it
            }
            std::this_thread::yield();
        }
        for (const auto& task : tasks) {
            try {
                task->wait();
            } catch (const std::exception&) {
            }
        }
    }

    const unsigned m_seed;
    test::GitSandbox m_sandbox;
    test::RandomWork m_work;
    test::RealServices m_real;
    std::shared_ptr<test::HookedGitFactory> m_factory;
    std::shared_ptr<LossyWatcher> m_watcher;
    std::unique_ptr<ManagedFolderProvider> m_provider;
    std::string m_mode, m_made;
};

// Whatever fails, hangs, lies and is lost: the cache says that it may be wrong, and is right again
// soon after it has ended.
TEST(Chaos, IsAnnouncedAndHealed) {
    unsigned from = 1, to = test::isLong ? 201 : 3;
    if (const char* seed = std::getenv("QUENDO_SEED"))
        to = (from = static_cast<unsigned>(std::atoi(seed))) + 1;
    for (auto seed = from; seed < to; ++seed)
        Chaos(seed).run(test::isLong ? 12 : 6);
}

} // namespace
} // namespace quendo
