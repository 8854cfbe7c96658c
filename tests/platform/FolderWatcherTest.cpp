#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/FolderListing.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "quendo/platform/standard/PollSchedule.h"
#include "quendo/platform/standard/WatchBudget.h"
#include "tests/support/JoinedThreads.h"
#include "tests/support/OwnNamespaces.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quendo::platform {
namespace {

using namespace std::chrono_literals;
using Kind = FolderEvent::Kind;
using Means = WatchHealth::Means;
using Scope = FolderWatcher::Scope;
using test::onThread;
using test::within;

/// What the callbacks said: "+a", "~a" or "-a" for an entry, "?d" for a folder whose contents are
/// unknown, paths below the root; and "native d" or "polled d" for its health. The same thing said
/// twice running counts once, because one write may bring several events.
class Heard {
public:
    explicit Heard(Path root) : m_root(std::move(root)) {}

    FolderWatcher::Callback callback(const std::string& who = "") {
        return [this, who](const FolderEvent& event) {
            add(who + "+~-?"[static_cast<int>(event.kind)] + shown(event.path));
        };
    }
    FolderWatcher::HealthSlot healthSlot() {
        return [this](const Path& folder, const WatchHealth& health) {
            add((health.means == Means::Native ? "native " : "polled ") + shown(folder));
        };
    }
    /// All that was said until this was; forgets it.
    std::vector<std::string> until(const std::string& text) {
        std::unique_lock lock(m_mutex);
        auto found = m_heard.end();
        if (!m_changed.wait_until(lock, test::byDeadline(), [&] {
                found = std::ranges::find(m_heard, text);
                return found != m_heard.end();
            })) {
            ADD_FAILURE() << text << " did not come, but " << testing::PrintToString(m_heard);
            return std::exchange(m_heard, {});
        }
        std::vector<std::string> result(m_heard.begin(), found + 1);
        m_heard.erase(m_heard.begin(), found + 1);
        return result;
    }

    /// Waits for each of these, in any order, and forgets it.
    void each(const std::vector<std::string>& texts) {
        std::unique_lock lock(m_mutex);
        for (const auto& text : texts) {
            const auto find = [&] { return std::ranges::find(m_heard, text); };
            if (m_changed.wait_until(lock, test::byDeadline(),
                                     [&] { return find() != m_heard.end(); }))
                m_heard.erase(find());
            else
                ADD_FAILURE() << text << " did not come";
        }
    }

    void add(const std::string& text) {
        const std::lock_guard lock(m_mutex);
        if (m_heard.empty() || m_heard.back() != text)
            m_heard.push_back(text);
        m_changed.notify_all();
    }

private:
    std::string shown(const Path& path) const { return path.lexicallyRelative(m_root).toNative(); }

    const Path m_root;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_heard;
};

/// Lets a folder look like a mounted remote file system, whose calls hang while it is told so.
class SlowMount : public FileSystemCalls {
public:
    explicit SlowMount(const fs::path& at) : m_at(at.native()) {}

    void hang(bool on) {
        const std::lock_guard lock(m_mutex);
        m_hangs = on;
        m_changed.notify_all();
    }
    /// Waits until that many calls hang.
    void awaitHanging(int count) {
        std::unique_lock lock(m_mutex);
        EXPECT_TRUE(
            m_changed.wait_until(lock, test::byDeadline(), [&] { return m_hanging >= count; }));
    }
    std::string mountTable(int file) override {
        return FileSystemCalls::mountTable(file) + "9999 1 0:9999 / " + m_at +
               " rw - nfs server:/export rw\n";
    }
    int addWatch(int inotify, const std::string& folder, std::uint32_t mask) override {
        pass(folder);
        return FileSystemCalls::addWatch(inotify, folder, mask);
    }
    FolderListing list(const std::string& folder, bool withEntries,
                       const std::function<void()>& progress) override {
        pass(folder);
        return FileSystemCalls::list(folder, withEntries, progress);
    }

private:
    void pass(const std::string& folder) {
        std::unique_lock lock(m_mutex);
        if (!m_hangs || !fs::weakly_canonical(folder).native().starts_with(m_at))
            return;
        ++m_hanging;
        m_changed.notify_all();
        m_changed.wait_until(lock, test::byDeadline(), [&] { return !m_hangs; });
        --m_hanging;
    }

    const std::string m_at;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_hangs = false;
    int m_hanging = 0;
};

/// A function that may be replaced while other threads call it.
template <class Result>
class Hook {
public:
    using Function = std::function<Result(const fs::path&)>;
    Hook& operator=(Function function) {
        const std::lock_guard lock(m_mutex);
        m_function = std::make_shared<const Function>(std::move(function));
        return *this;
    }
    Result operator()(const fs::path& path) const {
        const auto function = [&] {
            const std::lock_guard lock(m_mutex);
            return m_function;
        }();
        return function != nullptr && *function ? (*function)(path) : Result();
    }

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<const Function> m_function;
};

/// Lets a test act in the middle of a look at a folder, on the thread that takes it.
struct HookedCalls : FileSystemCalls {
    Hook<int> beforeAdding; ///< @return 0, or an error instead of a watch
    Hook<void> beforeListing, listed;
    std::size_t limit = SIZE_MAX;

    int addWatch(int inotify, const std::string& folder, std::uint32_t mask) override {
        const int error = beforeAdding(folder);
        return error != 0 ? -error : FileSystemCalls::addWatch(inotify, folder, mask);
    }
    FolderListing list(const std::string& folder, bool withEntries,
                       const std::function<void()>& progress) override {
        beforeListing(folder);
        auto result = FileSystemCalls::list(folder, withEntries, progress);
        listed(folder);
        return result;
    }
    std::size_t watchLimit() override { return limit; }
};

/// A folder, and a watcher of which every thread is joined in the end.
class Watching : public testing::Test {
protected:
    test::TemporaryFolder folder;
    const fs::path root = folder.path();
    Heard heard{folder.quendoPath()};
    InotifyFolderWatcherOptions options;
    std::unique_ptr<InotifyFolderWatcher> watcher;
    std::map<std::string, std::unique_ptr<FolderWatcher::Watch>> watches;

    Watching() {
        options.pollInterval = 1h; // what comes has been told by the system
        options.startThread = m_threads.starter();
    }
    ~Watching() override { finish(); }

    /// Returns when no thread is left.
    void finish() {
        watches.clear();
        m_threads.join();
    }
    Path path(const std::string& name) const {
        return Path::fromNative((name == "." ? root : root / name).native());
    }
    void watch(const std::string& name, Scope scope = Scope::Entries,
               FolderWatcher::Callback callback = {}) {
        if (watcher == nullptr) {
            watcher = std::make_unique<InotifyFolderWatcher>(options);
            watcher->connectHealthChanged(heard.healthSlot());
        }
        watches[name] = watcher->watch(path(name), scope, callback ? callback : heard.callback());
    }
    /// All that was told of what has happened until now.
    std::vector<std::string> untilNow() {
        watcher->fence([this] { heard.add("now"); });
        auto result = heard.until("now");
        result.pop_back();
        return result;
    }
    Means means(const std::string& name) const { return watcher->getHealth(path(name)).means; }
    std::string reason(const std::string& name) const {
        return watcher->getHealth(path(name)).reason;
    }

private:
    test::JoinedThreads m_threads;
};

void writeMapped(const fs::path& file) {
    const int opened = ::open(file.c_str(), O_RDWR);
    void* const at = ::mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, opened, 0);
    *static_cast<char*>(at) = 'x';
    ::munmap(at, 1);
    ::close(opened);
}

TEST_F(Watching, TellsEveryKindOfChangeAndEveryName) {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '/')
            bytes += static_cast<char>(byte);
    watch(".");
    untilNow();
    const std::tuple<const char*, std::function<void()>, std::vector<std::string>> rows[] = {
        {"new file", [&] { test::writeFile(root / "a", "1"); }, {"+a", "~a"}},
        {"mapped", [&] { writeMapped(root / "a"); }, {"~a"}},
        {"mode", [&] { fs::permissions(root / "a", fs::perms::owner_all); }, {"~a"}},
        {"rename", [&] { fs::rename(root / "a", root / "b"); }, {"-a", "+b"}},
        {"rename over",
         [&] {
             test::writeFile(root / "c", "");
             fs::rename(root / "c", root / "b");
         },
         {"+c", "~c", "-c", "+b"}},
        {"delete", [&] { fs::remove(root / "b"); }, {"-b"}},
        {"folder", [&] { fs::create_directory(root / "d"); }, {"+d"}},
        {"below", [&] { test::writeFile(root / "d/x", "1"); }, {}},
        {"its own mode", [&] { fs::permissions(root, fs::perms::owner_all); }, {"~."}},
        {"every byte", [&] { fs::create_directory(root / bytes); }, {"+" + bytes}},
    };
    for (const auto& [label, act, expected] : rows) {
        act();
        EXPECT_EQ(untilNow(), expected) << label;
    }
    EXPECT_EQ(means("."), Means::Native);
    EXPECT_EQ(means("d"), Means::NotWatched);
}

// In every row d and d/e are watched at first, and the last line of the table's action leaves a
// d/e behind that has to be watched.
TEST_F(Watching, FollowsThePathAndNotTheFolder) {
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"away and back",
         [&] {
             fs::rename(root / "d", root / "x");
             const auto said = untilNow();
             EXPECT_THAT(said, testing::IsSupersetOf({"?d", "?d/e"}));
             EXPECT_THAT(said, Not(Contains(HasSubstr("polled")))) << "events tell their return";
             test::writeFile(root / "x/e/elsewhere", "");
             EXPECT_THAT(untilNow(), ElementsAre());
             fs::rename(root / "x", root / "d");
         }},
        {"deleted and made anew",
         [&] {
             fs::remove_all(root / "d");
             EXPECT_THAT(untilNow(), testing::IsSupersetOf({"?d", "?d/e"}));
             fs::create_directories(root / "d/e");
         }},
        {"replaced",
         [&] {
             fs::create_directories(root / "new/e");
             fs::rename(root / "d", root / "old");
             fs::rename(root / "new", root / "d");
         }},
        {"deleted while it is open",
         [&] {
             const int d = ::open((root / "d").c_str(), O_RDONLY);
             const int e = ::open((root / "d/e").c_str(), O_RDONLY);
             fs::remove_all(root / "d");
             EXPECT_THAT(untilNow(), testing::IsSupersetOf({"?d", "?d/e"}));
             ::close(d);
             ::close(e);
             fs::create_directories(root / "d/e");
         }},
    };
    for (const Scope scope : {Scope::Itself, Scope::Entries})
        for (const auto& [label, act] : rows) {
            SCOPED_TRACE(label);
            fs::create_directories(root / "d/e");
            watch(".", scope, [](const FolderEvent&) {});
            watch("d", scope);
            watch("d/e");
            untilNow();
            act();
            EXPECT_THAT(untilNow(), testing::IsSupersetOf({"?d", "?d/e"}));
            test::writeFile(root / "d/e/file", "");
            EXPECT_THAT(untilNow(), ElementsAre("+d/e/file", "~d/e/file"));
            EXPECT_EQ(std::pair(means("d"), means("d/e")), std::pair(Means::Native, Means::Native));
            watches.clear();
            for (const auto& entry : fs::directory_iterator(root))
                fs::remove_all(entry);
        }
}

TEST_F(Watching, ComesBackWithoutAWatchedParent) {
    options.pollInterval = 5ms;
    fs::create_directory(root / "d");
    watch("d", Scope::Itself);
    watch("nowhere");
    EXPECT_EQ(means("nowhere"), Means::Polled);
    for (int i = 0; i < 2; ++i) {
        fs::rename(root / "d", root / "x");
        heard.until("polled d");
        fs::rename(root / "x", root / "d");
        EXPECT_THAT(heard.until("native d"), ElementsAre("?d", "native d"));
    }
    fs::create_directory_symlink("d", root / "nowhere");
    fs::remove(root / "nowhere");
    fs::create_directory(root / "nowhere");
    heard.until("native nowhere");
    fs::create_directory(root / "nowhere/a");
    heard.until("+nowhere/a");
}

// What came before anybody was there to tell of it is found when its parent is watched.
TEST_F(Watching, FindsWhatIsThereWhenAParentIsWatched) {
    for (const auto* name : {"a/b", "a/b/c", "a/d"})
        watch(name);
    fs::create_directories(root / "a/b/c");
    EXPECT_EQ(means("a/b"), Means::Polled);
    watch("a");
    for (const auto* name : {"?a/b", "native a/b", "?a/b/c", "native a/b/c"})
        heard.until(name);
    EXPECT_EQ(means("a/d"), Means::Polled);
    EXPECT_THAT(untilNow(), testing::IsEmpty());
}

TEST_F(Watching, SubscribersAndSpellingsShareAFolder) {
    fs::create_directories(root / "real/d");
    fs::create_directory_symlink("real", root / "link");
    watch("real/d", Scope::Itself);
    watch("link/d");
    watches["second"] = watcher->watch(path("link/d"), Scope::Entries, heard.callback("second "));
    untilNow();
    fs::create_directory(root / "real/d/a");
    EXPECT_THAT(untilNow(), ElementsAre("+link/d/a", "second +link/d/a"));
    watch("real/d");
    fs::create_directory(root / "real/d/b");
    EXPECT_THAT(untilNow(),
                testing::UnorderedElementsAre("+link/d/b", "second +link/d/b", "+real/d/b"));
    watches.erase("link/d");
    watches.erase("second");
    fs::create_directory(root / "real/d/c");
    EXPECT_THAT(untilNow(), ElementsAre("+real/d/c"));
    watch("link/d");
    fs::rename(root / "real/d", root / "x");
    EXPECT_THAT(untilNow(), testing::IsSupersetOf({"?real/d", "?link/d"}));
    watch("link");
    EXPECT_THAT(reason("link"), HasSubstr("symbolic link"));
}

TEST_F(Watching, LinesStandBetweenWhatHappenedBeforeAndAfter) {
    std::promise<void> go;
    options.queueBound = 1U << 20U;
    // The reader sleeps; who draws a line does its work.
    options.beforeRead = [gate = go.get_future().share()] { gate.wait(); };
    test::writeFile(root / "same", "");
    watch(".");
    const auto line = [&](const std::string& text) {
        watcher->fence([this, text] { heard.add(text); });
    };
    const auto append = [&] { std::ofstream(root / "same", std::ios::app) << 'x'; };
    for (int i = 0; i < 100; ++i) {
        // The same change on both sides of a line is told on both.
        append();
        line("1");
        append();
        line("2");
        line("3");
        append();
        EXPECT_THAT(untilNow(), ElementsAre("~same", "1", "~same", "2", "3", "~same"));
    }
    go.set_value();
    line("behind");
    watches.clear();
    EXPECT_THAT(untilNow(), ElementsAre("behind"));
}

TEST_F(Watching, EndsInsideItsCallbackAndWaitsForOneElsewhere) {
    const auto asking = [&] { // in the end; would wait for ever if a lock were held
        return std::shared_ptr<void>(nullptr, [this](void*) { means("."); });
    };
    fs::create_directory(root / "d");
    std::promise<void> made, erased, inside, go;
    watch(".", Scope::Entries, [&, own = asking()](const FolderEvent&) {
        within(made.get_future());
        watches.erase("."); // the last watch
        watch("d");
        erased.set_value();
        throw std::runtime_error("swallowed");
    });
    fs::create_directory(root / "x");
    made.set_value();
    within(erased.get_future());
    int calls = 0; // plain: the sanitizer tells when ending does not wait
    watch("d", Scope::Entries, [&, own = asking()](const FolderEvent&) {
        inside.set_value();
        within(go.get_future());
        ++calls;
    });
    fs::create_directory(root / "d/a");
    within(inside.get_future());
    auto ended = onThread([&] { watches.erase("d"); });
    fs::create_directory(root / "d/b");
    EXPECT_EQ(ended.wait_for(1ms), std::future_status::timeout);
    go.set_value();
    within(std::move(ended));
    untilNow();
    EXPECT_EQ(calls, 1);
}

TEST_F(Watching, TellsThatEventsWereLostAndGoesOn) {
    int most = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
    if (most > 200'000)
        GTEST_SKIP() << "SKIPPED: the queue of the kernel is too long to be filled";
    std::mutex gate; // the test holds up who takes it
    const auto pass = [&] { const std::lock_guard lock(gate); };
    options.beforeRead = pass;
    options.queueBound = 4096;
    for (const int events : {200, most + 100}) { // the queue in memory, and the kernel's
        SCOPED_TRACE(events);
        fs::create_directories(root / "d/e");
        watch("d");
        watch("d/e");
        watch("gate", Scope::Entries, [&](const FolderEvent&) { pass(); });
        untilNow();
        const test::LogCapture log;
        {
            std::unique_lock lock(gate);
            fs::remove(root / "d/e");
            fs::create_directory(root / "d/e");
            for (int i = 0; i < events / 2; ++i) {
                ::mknod((root / "d/x").c_str(), S_IFREG, 0);
                ::unlink((root / "d/x").c_str());
            }
        }
        EXPECT_THAT(untilNow(), testing::IsSupersetOf({"?d", "?d/e"}));
        EXPECT_GE(log.count("Events of 3 watched folders were lost"), 1U);
        fs::create_directory(root / "d/e/later");
        EXPECT_THAT(untilNow(), testing::Contains("+d/e/later"));
        fs::remove(root / "d/e/later");
        untilNow();
    }
    finish(); // before the gate goes
}

TEST_F(Watching, UnreadableFoldersAreWatchedOnceTheyCanBeRead) {
    options.pollInterval = 5ms;
    fs::create_directory(root / "d");
    fs::permissions(root / "d", fs::perms::none);
    if (::access((root / "d").c_str(), R_OK) == 0)
        GTEST_SKIP() << "SKIPPED: run without root's powers over files, as ./test does";
    watch("d");
    EXPECT_EQ(means("d"), Means::Polled);
    EXPECT_THAT(reason("d"), HasSubstr("permission"));
    fs::permissions(root / "d", fs::perms::owner_all);
    heard.until("?d");
    heard.until("native d");
    fs::create_directory(root / "d/a");
    EXPECT_THAT(heard.until("+d/a"), ElementsAre("+d/a"));
    finish();

    options.pollInterval = 1h;
    fs::permissions(root / "d", fs::perms::none);
    watcher.reset();
    for (const auto* name : {".", "d", "d/a"})
        watch(name);
    fs::permissions(root / "d", fs::perms::owner_all);
    EXPECT_THAT(untilNow(), ElementsAre("~d", "?d", "native d", "?d/a", "native d/a"));
}

TEST(FolderListing, TellsWhatIsYoungOnceMore) {
    const auto told = [](const FolderListing& before, const FolderListing& after) {
        std::string result;
        after.compare(before, [&](Kind kind, const std::string& name) {
            result += "+~-?"[static_cast<int>(kind)] + name;
        });
        return result;
    };
    const test::TemporaryFolder folder;
    for (const auto* name : {"a", "b", "c", "e"})
        test::writeFile(folder.path() / name, "");
    const auto take = [&](bool isYoung) {
        auto result = FolderListing::take(folder.path(), true);
        result.isYoung = isYoung;
        for (auto& entry : result.entries)
            entry.isYoung = isYoung && entry.name == "e";
        return result;
    };
    const auto before = take(true);
    const auto later = take(false);
    EXPECT_EQ(told(before, later), "~e?");
    EXPECT_EQ(told(later, take(false)), "");
    fs::last_write_time(folder.path(), fs::last_write_time(folder.path()) + 1s);
    EXPECT_EQ(told(later, take(false)), "?") << "something came and went";
    test::writeFile(folder.path() / "new", "");
    fs::rename(folder.path() / "new", folder.path() / "a");
    fs::rename(folder.path() / "b", folder.path() / "d");
    test::writeFile(folder.path() / "c", "1");
    fs::remove(folder.path() / "e");
    EXPECT_EQ(told(before, take(false)), "-a+a-b~c+d-e");
    EXPECT_FALSE(before.isSameFolder(FolderListing::take(folder.path(), false)));
    for (const bool withEntries : {false, true}) {
        const auto nothing = FolderListing::take(folder.path() / "nothing", withEntries);
        EXPECT_TRUE(nothing.isSameFolder(FolderListing::take(folder.path() / "a", withEntries)));
        EXPECT_FALSE(nothing.isSameFolder(FolderListing::take(folder.path(), withEntries)));
    }
}

TEST_F(Watching, RemoteFileSystemsArePolledBeside) {
    options.calls = std::make_shared<SlowMount>(root);
    options.pollInterval = 5ms;
    fs::create_directory(root / "old");
    watch(".");
    EXPECT_EQ(means("."), Means::Polled);
    EXPECT_THAT(reason("."), HasSubstr("others change"));
    fs::create_directory(root / "a");
    heard.until("+a");
    fs::create_directory(root / "old/x"); // the system tells those alone who watch "old"
    heard.until("~old");
}

TEST_F(Watching, AHangingMountHoldsUpNobodyElse) {
    const auto calls = std::make_shared<SlowMount>(root / "slow");
    options.calls = calls;
    options.patience = 500ms;
    for (const auto* name : {"slow/d", "slow/e", "slow/f", "live"})
        fs::create_directories(root / name);
    fs::create_directory_symlink("slow", root / "link");
    watch(".", Scope::Itself);
    watch("slow/d");
    EXPECT_EQ(means("slow/d"), Means::Polled);
    const auto threads = [] {
        return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
    };
    const auto before = threads();
    for (int times = 0; times < 2; ++times) {
        calls->hang(true);
        watch("slow/e");
        calls->awaitHanging(1);
        EXPECT_EQ(means("slow/e"), Means::NotWatched);
        EXPECT_THAT(reason("slow/e"), HasSubstr("slow does not answer"));
        heard.until("polled slow/d");
        EXPECT_EQ(means("slow/d"), Means::NotWatched);
        watch("link/f");
        watch("slow/f");
        EXPECT_EQ(means("link/f"), Means::NotWatched);
        watch("live");
        fs::rename(root / "slow", root / "away"); // visits all of it
        fs::rename(root / "away", root / "slow");
        fs::create_directory(root / "live/a");
        EXPECT_THAT(untilNow(), testing::Contains("+live/a"));
        watches.erase("slow/f");
        EXPECT_LE(threads(), before + 1);
        calls->hang(false);
        heard.each(
            {"?slow/d", "?slow/e", "?link/f", "polled slow/d", "polled slow/e", "polled link/f"});
        fs::create_directory(root / "slow/e/a");
        heard.until("+slow/e/a");
        fs::remove(root / "live/a");
        fs::remove(root / "slow/e/a");
        for (const auto* name : {"slow/e", "link/f", "live"})
            watches.erase(name);
        untilNow();
    }
}

TEST_F(Watching, WorkingCopiesShareTheWatches) {
    const auto calls = std::make_shared<HookedCalls>();
    calls->limit = 128; // half of them for us
    options.calls = calls;
    options.pollInterval = 5ms;
    const auto open = [&](const std::string& name, int folders) {
        for (int i = 0; i < folders; ++i) {
            const auto below = name + "/" + std::to_string(i);
            fs::create_directories(root / below);
            fs::last_write_time(root / below, fs::file_time_type::clock::now() - 1h);
            if (i == 0)
                watch(name, Scope::Itself);
            watch(below);
        }
    };
    const auto native = [&](const std::string& name) {
        return std::ranges::count_if(watches, [&](const auto& entry) {
            return entry.first.starts_with(name) && means(entry.first) == Means::Native;
        });
    };
    open("a", 80);
    EXPECT_EQ(native("a"), 64);
    // What happened before a folder was listed and is told after its watch was taken.
    std::promise<void> isTelling, goOn;
    watch("a/0", Scope::Entries, [&](const FolderEvent&) {
        isTelling.set_value();
        within(goOn.get_future());
    });
    std::atomic<bool> isReached = false, isListed = false;
    calls->beforeListing = [&](const fs::path& listed) {
        if (listed == root / "a/62" && !isReached.exchange(true)) {
            fs::create_directory(root / "a/0/x");
            within(isTelling.get_future());
            fs::create_directory(root / "a/62/early");
            while (FolderListing::take(listed, true).isYoung)
                std::this_thread::yield();
            isListed = true;
        }
    };
    calls->listed = [&](const fs::path& listed) {
        if (listed == root / "a/62" && isListed.exchange(false))
            goOn.set_value();
    };
    open("b", 20);
    heard.until("+a/62/early");
    const auto becomes = [&](const std::string& name, int count) {
        const auto limit = test::byDeadline();
        while (native(name) != count && std::chrono::steady_clock::now() < limit)
            untilNow();
        EXPECT_EQ(native(name), count) << name;
    };
    becomes("b", 21);
    EXPECT_LE(native("a"), 43);
    EXPECT_EQ(means("a"), Means::Native) << "the first ones keep theirs";
    EXPECT_THAT(reason("a/79"), HasSubstr("left to other programs and working copies"));
    fs::create_directory(root / "a/62/x");
    EXPECT_THAT(heard.until("+a/62/x"), testing::Not(testing::Contains("?a/62")));
    std::erase_if(watches, [](const auto& entry) { return entry.first.starts_with('b'); });
    becomes("a", 64);
    finish();
    EXPECT_THAT(fairShare({5, 1, 9}, 12), 6U);
    EXPECT_THAT(fairShare({4, 9, 9, 9}, 2), 1U);
}

TEST_F(Watching, TellsWhatHappensWhileItLooks) {
    const auto calls = std::make_shared<HookedCalls>();
    options.calls = calls;
    options.pollInterval = 5ms;
    std::atomic<bool> isClosed = true, isMade = false;
    const auto awaitLine = [&] {
        std::promise<void> isPassed;
        watcher->fence([&] { isPassed.set_value(); });
        within(isPassed.get_future());
    };
    calls->beforeAdding = [&](const fs::path& at) {
        if (at == root / "d/new" && !isMade.exchange(true)) {
            fs::create_directory(at);
            awaitLine(); // when that is told, the watcher looks at it as well
        }
        return at == root / "closed" && isClosed ? EACCES : 0;
    };
    fs::create_directory(root / "closed");
    fs::last_write_time(root / "closed", fs::file_time_type::clock::now() - 1h);
    fs::create_directory(root / "d");
    watch("d");
    watch("d/new");
    fs::create_directory(root / "d/new/a");
    EXPECT_THAT(untilNow(), ElementsAre("+d/new", "+d/new/a")) << "nothing is unknown";
    watch("closed");
    EXPECT_EQ(means("closed"), Means::Polled);
    std::atomic<bool> isChanged = false;
    calls->listed = [&](const fs::path& at) {
        if (at == root / "closed" && !isClosed && !isChanged.exchange(true)) {
            fs::create_directory(at / "late"); // it is watched by now
            awaitLine();
        }
    };
    isClosed = false;
    heard.until("?closed");
    EXPECT_EQ(means("closed"), Means::Native);
    finish();
}

TEST_F(Watching, EndsWhileItLooks) {
    const auto calls = std::make_shared<HookedCalls>();
    options.calls = calls;
    options.pollInterval = 5ms;
    calls->beforeAdding = [&](const fs::path& at) { return at == root / "closed" ? EACCES : 0; };
    std::promise<void> hasEnded;
    options.startThread = [&, start = options.startThread](UniqueFunction<void()> body) {
        start([&, body = std::move(body)]() mutable {
            body();
            std::array<char, 16> name{};
            ::prctl(PR_GET_NAME, name.data());
            if (std::string_view(name.data()) == "quendo-watch")
                hasEnded.set_value();
        });
    };
    fs::create_directory(root / "open");
    fs::create_directory(root / "closed");
    watch("open");
    watch("closed");
    std::promise<void> isListing, goOn;
    calls->listed = [&, once = false](const fs::path&) mutable {
        if (std::exchange(once, true))
            return;
        isListing.set_value();
        within(goOn.get_future());
    };
    within(isListing.get_future());
    watches.erase("open");
    watches.erase("closed");
    within(hasEnded.get_future());
    goOn.set_value();
    finish();
}

TEST_F(Watching, CallsAgainWhatHadNoMemoryOrThread) {
    options.pollInterval = 5ms;
    int calls = 0;
    watch(".", Scope::Entries, [&](const FolderEvent& event) {
        if (++calls < 3)
            throw std::system_error(EAGAIN, std::generic_category());
        EXPECT_TRUE(event.polled);
        heard.callback()(event);
    });
    fs::create_directory(root / "a");
    EXPECT_THAT(heard.until("?."), ElementsAre("?."));
}

TEST(PollSchedule, GroupsTakeTurnsAndRest) {
    using Schedule = PollSchedule<int>;
    Schedule schedule(2s);
    const auto start = Schedule::Time() + 1h;
    const Path big(u"/big"), small(u"/small");
    std::vector<Schedule::Place> places;
    for (int i = 0; i < 4; ++i)
        places.push_back(schedule.add(big, i, start));
    places.push_back(schedule.add(small, 9, start));
    EXPECT_FALSE(schedule.begin(start));
    auto now = start;
    std::vector<std::string> looks; // one member a slice, each of which takes as long as a slice
    const auto step = [&] {
        now = std::max(now, *schedule.nextSlice());
        ASSERT_TRUE(schedule.begin(now));
        const auto* member = schedule.next();
        looks.push_back(std::to_string((now - start) / 1ms) + ":" + std::to_string(*member));
        const auto begun = now;
        now += Schedule::slice;
        schedule.end(begun, now);
    };
    for (int i = 0; i < 3; ++i)
        step();
    schedule.remove(places[2]); // the one whose turn it is
    for (int i = 0; i < 2; ++i)
        step();
    EXPECT_THAT(looks, ElementsAre("2000:0", "2080:9", "2160:1", "2240:3", "4100:9"));
    schedule.remove(places[4]);
    // The pass over the big group took 60 ms.
    EXPECT_EQ(*schedule.nextSlice(), start + 2260ms + 2s);
}

TEST_F(Watching, WithoutAThreadSaysSoAndRecovers) {
    bool fails = true;
    options.startThread = [&, start = options.startThread](UniqueFunction<void()> body) {
        if (fails)
            throw std::system_error(EAGAIN, std::generic_category());
        start(std::move(body));
    };
    fs::create_directory(root / "d");
    watch("d");
    EXPECT_EQ(means("d"), Means::NotWatched);
    EXPECT_THAT(reason("d"), HasSubstr("thread"));
    fails = false;
    watch(".");
    EXPECT_THAT(heard.until("native d"), testing::Contains("?d"));
}

TEST_F(Watching, StormOfWatchesLeavesNothingBehind) {
    const auto before = test::held();
    fs::create_directories(root / "0/0/0");
    watch("0");
    watches.clear();
    std::atomic<int> running = 0;
    test::onThreads(16, [&](int thread) {
        std::string name = thread % 4 == 0 ? "." : "0";
        for (int i = 0; i < 100; ++i) {
            int calls = 0; // plain: no callback may come when its watch has ended
            const auto one =
                watcher->watch(path(name), thread % 2 == 0 ? Scope::Itself : Scope::Entries,
                               [&](const FolderEvent&) {
                                   EXPECT_EQ(++running, 1);
                                   ++calls;
                                   --running;
                               });
            const auto own = root / ("own" + std::to_string(thread));
            std::error_code ignored;
            fs::create_directory(own, ignored);
            fs::rename(own, root / "0" / own.filename(), ignored);
            const auto two = watcher->watch(path("0/" + own.filename().native()), Scope::Entries,
                                            [&](const FolderEvent&) { ++calls; });
            fs::remove(root / "0" / own.filename(), ignored);
            if (thread == 1) {
                fs::rename(root / "0", root / "1", ignored);
                fs::rename(root / "1", root / "0", ignored);
            }
        }
    });
    finish();
    EXPECT_EQ(test::held(), before);
    watch("."); // it starts again
    fs::create_directory(root / "a");
    heard.until("+a");
}

using LimitedDeathTest = Watching;

constexpr int few = 64;

/// Leaves no descriptor. @return the limit before; nothing where that cannot be done: the sanitizer
/// of undefined behaviour needs some for its own checks.
std::optional<rlimit> takeDescriptors() {
#ifdef __SANITIZE_ADDRESS__
    return {};
#endif
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit limit{few, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    while (::dup(STDERR_FILENO) >= 0) {
    }
    return before;
}

TEST_F(LimitedDeathTest, PollsWhatExceedsTheLimits) {
    options.pollInterval = 5ms;
    test::expectSuccessInOwnNamespaces([this] {
        const test::LogCapture log;
        test::limitInotify("watches", 64);
        for (int i = 0; i < 100; ++i)
            fs::create_directory(root / std::to_string(i));
        for (int i = 0; i < 100; ++i)
            watch(std::to_string(i), i % 2 == 0 ? Scope::Itself : Scope::Entries);
        EXPECT_EQ(means("31"), Means::Native);
        EXPECT_EQ(means("32"), Means::Polled) << "the other half is left to other programs";
        EXPECT_THAT(reason("99"), HasSubstr("fs.inotify.max_user_watches"));
        fs::create_directory(root / "99/a");
        heard.until("+99/a");
        fs::remove(root / "98");
        heard.until("?98");
        EXPECT_EQ(log.count("Folders are polled"), 1U);
        test::limitInotify("watches", 1000);
        heard.until("native 99");

        finish();
        test::limitInotify("instances", 0);
        watch("1");
        EXPECT_THAT(reason("1"), HasSubstr("fs.inotify.max_user_instances"));
        fs::create_directory(root / "1/a");
        heard.until("+1/a");
        test::limitInotify("instances", 8);
        heard.until("native 1");
        fs::create_directory(root / "1/b");
        heard.until("+1/b");

        // A session that cannot have the mount table would hear of no mount.
        finish();
        const auto before = takeDescriptors();
        if (!before)
            return;
        for (int free = 0; free < 3; ++free) // for the table itself, inotify and eventfd
            ::close(few - 1 - free);
        watch("2");
        EXPECT_THAT(reason("2"), HasSubstr("limit of open files"));
        ::setrlimit(RLIMIT_NOFILE, &*before);
        heard.until("native 2");
        finish();
    });
}

// What another program takes beyond its share is given up by this one.
TEST_F(LimitedDeathTest, LeavesWatchesToOthers) {
    options.pollInterval = 5ms;
    test::expectSuccessInOwnNamespaces([this] {
        test::limitInotify("watches", 64);
        const int other = ::inotify_init1(IN_CLOEXEC);
        const auto take = [&](int count) {
            for (int i = 0; i < count; ++i) {
                const auto each = root / ("other" + std::to_string(i));
                fs::create_directories(each);
                if (::inotify_add_watch(other, each.c_str(), IN_CREATE) < 0)
                    return false;
            }
            return true;
        };
        EXPECT_TRUE(take(40));
        watch(".", Scope::Itself);
        for (int i = 0; i < 30; ++i) {
            fs::create_directory(root / std::to_string(i));
            watch(std::to_string(i));
        }
        heard.until("polled 11"); // of the 24 that were free half are given back
        EXPECT_TRUE(take(52));
        fs::create_directory(root / "11/a");
        heard.until("+11/a");
        ::close(other);
        finish();
    });
}

TEST_F(LimitedDeathTest, SeesMountingAndUnmounting) {
    test::expectSuccessInOwnNamespaces([this] {
        fs::create_directory(root / "d");
        if (::mount("none", (root / "d").c_str(), "tmpfs", 0, nullptr) != 0)
            test::skipForWantOfRights();
        fs::create_directory(root / "d/e");
        watch("d");
        watch("d/e");
        ASSERT_EQ(::umount((root / "d").c_str()), 0) << errno;
        EXPECT_THAT(untilNow(), testing::UnorderedElementsAre("?d", "?d/e"));
        fs::create_directory(root / "d/e");
        EXPECT_THAT(untilNow(), testing::IsSupersetOf({"+d/e", "?d/e"}));

        // Over folders that are watched; and detached while somebody works there.
        fs::create_directory(root / "d/with space");
        watch("d/with space");
        untilNow(); // "?" of a look that its coming led to
        ASSERT_EQ(::mount("none", (root / "d/with space").c_str(), "tmpfs", 0, nullptr), 0);
        heard.until("?d/with space");
        fs::create_directory(root / "d/with space/a");
        heard.until("+d/with space/a");
        const std::ofstream open(root / "d/with space/b");
        ASSERT_EQ(::umount2((root / "d/with space").c_str(), MNT_DETACH), 0);
        heard.until("?d/with space");
        ASSERT_EQ(::mount("none", root.c_str(), "tmpfs", 0, nullptr), 0);
        heard.until("?d");
        // The watcher may be looking at what was mounted.
        const auto limit = test::byDeadline();
        while (::umount(root.c_str()) != 0)
            ASSERT_TRUE(errno == EBUSY && std::chrono::steady_clock::now() < limit);
        heard.until("native d");
        finish();
    });
}

// The mount table is read again while there is no descriptor left.
TEST_F(LimitedDeathTest, KnowsRemoteFileSystemsWithoutADescriptor) {
    options.polledFileSystems = {"tmpfs"};
    test::expectSuccessInOwnNamespaces([this] {
        for (const auto* name : {"d", "other"}) {
            fs::create_directory(root / name);
            ASSERT_EQ(::mount("none", (root / name).c_str(), "tmpfs", 0, nullptr), 0);
        }
        watch("d");
        watch("other");
        EXPECT_EQ(means("d"), Means::Polled);
        const auto before = takeDescriptors();
        ASSERT_EQ(::umount2((root / "other").c_str(), MNT_DETACH), 0);
        heard.until("?other"); // by which all know the new table
        if (before)
            ::setrlimit(RLIMIT_NOFILE, &*before);
        fs::create_directory(root / "d/a");
        watch("d/a");
        EXPECT_EQ(means("d/a"), Means::Polled);
        EXPECT_EQ(means("d"), Means::Polled);
        finish();
    });
}

// A file system whose server does nothing, in earnest.
TEST_F(LimitedDeathTest, AHangingServerHoldsUpNobodyElse) {
    options.patience = 500ms;
    test::expectSuccessInOwnNamespaces([this] {
        fs::create_directories(root / "live");
        fs::create_directory(root / "slow");
        const int server = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
        const auto how = "fd=" + std::to_string(server) + ",rootmode=40000,user_id=0,group_id=0";
        if (::mount("none", (root / "slow").c_str(), "fuse", 0, how.c_str()) != 0)
            test::skipForWantOfRights();
        watch("live");
        watch("slow/d");
        EXPECT_EQ(means("slow/d"), Means::NotWatched);
        fs::create_directory(root / "live/a");
        EXPECT_THAT(untilNow(), testing::Contains("+live/a"));
        ::close(server); // from now on each call fails
        heard.until("?slow/d");
        EXPECT_THAT(reason("slow/d"), HasSubstr("refuses"));
        ASSERT_EQ(::umount2((root / "slow").c_str(), MNT_DETACH), 0);
        finish();
    });
}

} // namespace
} // namespace quendo::platform
