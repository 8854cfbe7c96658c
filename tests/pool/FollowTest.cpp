#include "quendo/factory/InjectedCMAdapterFactories.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/OwnNamespaces.h"
#include "tests/support/RandomWork.h"
#include "tests/support/RealFolder.h"
#include "tests/support/States.h"
#include "tests/support/SteppedDetection.h"

#include <sys/stat.h>

namespace quendo {
namespace {

/// A managed folder over a real Git working copy, by real events. All it does runs on the test's
/// thread, when the test says so.
struct SteppedFolder {
    explicit SteppedFolder(const test::GitSandbox& sandbox,
                           std::shared_ptr<platform::FolderWatcher> watcher = nullptr)
        : detection(std::move(watcher)),
          followed(provider->provideFor(Path::fromNative(sandbox.work().native()))) {
        followed.cache.refreshFolder(followed.root);
        settle();
    }
    /// All that has happened was answered; what fails again and again has been retried.
    void settle() {
        int before = 0;
        for (int quiet = 0, rounds = 0; quiet < 2 && rounds < 200; before = queries, ++rounds)
            quiet = detection.endWindows() != 0 || queries != before ? 0 : quiet + 1;
    }

    int queries = 0;
    const std::shared_ptr<test::HookedGitFactory> factory = [this] {
        auto made = std::make_shared<test::HookedGitFactory>();
        made->inQuery = [this] { ++queries; };
        return made;
    }();
    const scope_guard remove{getInjectedCMAdapterFactoriesInstance().inject(factory)};
    test::SteppedDetection detection;
    const std::unique_ptr<ManagedFolderProvider> provider =
        createNewManagedFolderProviderInstance();
    const test::FollowedFolder followed;
};

/// What is cached beside what a fresh query says, when all that has happened was answered. What is
/// found by looking from time to time is waited for.
std::string differencesInTheEnd(SteppedFolder& folder, bool isPolled) {
    for (;;) {
        folder.settle();
        auto text = test::differences(folder.followed.cached(), folder.followed.asked());
        if (text.empty() || !isPolled || !folder.detection.awaitTask())
            return text;
    }
}

struct Length {
    unsigned from, to, operations;
};

/// QUENDO_SEED=number runs that one alone.
Length lengthOf(unsigned shard, unsigned shards, unsigned mostSeeds = 200) {
    if (const char* seed = std::getenv("QUENDO_SEED"))
        return {static_cast<unsigned>(std::atoi(seed)), static_cast<unsigned>(std::atoi(seed)) + 1,
                200};
    if (!test::isLong)
        return {shard + 1, shard + 2, 40};
    const unsigned seeds = mostSeeds / shards;
    return {shard * seeds + 1, (shard + 1) * seeds + 1, 200};
}

struct Means {
    std::function<std::shared_ptr<platform::FolderWatcher>()> makeWatcher = [] { return nullptr; };
    bool isPolled = false;
    bool hasNested = false;
    /// Called with what works in the folder.
    std::function<void(const std::filesystem::path&, const std::function<void()>&)> around =
        [](const auto&, const auto& work) { work(); };
};

/// What happens may move or break the metadata of the working copy itself.
bool isIntact(const test::GitSandbox& sandbox) {
    return sandbox.run({"git", "rev-parse", "--show-toplevel"}, sandbox.work()).exitCode == 0;
}

/// Whenever things pause, the cache is what a fresh query says.
void follow(const Length& length, const Means& means) {
    for (unsigned seed = length.from; seed < length.to; ++seed) {
        test::GitSandbox sandbox;
        sandbox.enterEnvironment();
        sandbox.init();
        test::RandomWork work(sandbox, seed, means.hasNested);
        auto made = work.act(30);
        if (means.hasNested && seed % 3 == 0)
            sandbox.run({"sh", "-c",
                         "git commit -qm 1 --allow-empty; cd ..; mv work first; "
                         "cd first; git worktree add -f ../work"},
                        sandbox.work());
        if (means.hasNested && !isIntact(sandbox))
            continue;
        SteppedFolder folder(sandbox, means.makeWatcher());
        const auto findWrong = [&]() -> std::string {
            try {
                return differencesInTheEnd(folder, means.isPolled);
            } catch (const std::exception& error) {
                // A damaged working copy is compared when it has been repaired.
                return isIntact(sandbox) ? std::string(error.what()) + "\n" : "";
            }
        };
        for (unsigned done = 0; done < length.operations;) {
            const unsigned count = 1 + work.below(6);
            std::string script;
            means.around(sandbox.work(), [&] { script += work.act(count); });
            done += count;
            made += script;
            const auto wrong = findWrong();
            if (!wrong.empty()) {
                ADD_FAILURE() << wrong << "seed " << seed << ", after " << done << ":\n"
                              << script << "made by\n"
                              << std::exchange(made, {});
                break;
            }
        }
        if (!isIntact(sandbox))
            continue; // retried for as long as it is damaged
        const int before = folder.queries;
        folder.settle();
        EXPECT_TRUE(means.isPolled || folder.queries == before)
            << "seed " << seed << " refreshes itself for ever";
    }
}

class Follow : public testing::TestWithParam<unsigned> {};
class FollowDeathTest : public testing::TestWithParam<std::pair<const char*, int>> {};

TEST_P(Follow, WhatHappens) {
    follow(lengthOf(GetParam(), 4), {});
}
TEST_P(Follow, WhatHappensInNestedWorkingCopies) {
    Means means;
    means.hasNested = true;
    auto length = lengthOf(GetParam(), 4, 500);
    length.operations = std::min(length.operations / 2, 80U);
    follow(length, means);
}
INSTANTIATE_TEST_SUITE_P(Shard, Follow, testing::Range(0U, 4U));

struct Story {
    const char* what;
    std::vector<std::string> steps; ///< of a shell; the first makes the working copy
};

void PrintTo(const Story& story, std::ostream* out) {
    *out << story.what;
}

constexpr const char* shell = R"sh(set -e
library() { git init -q "$1"; (cd "$1"; mkdir d; echo 1 > l; echo 1 > d/f; echo 'o/' > .gitignore; git add .; git commit -qm l); }
subs() { git -c protocol.file.allow=always submodule -q "$@"; }
begin() { library ../lib; git init -q -b main; echo 1 > a; mkdir e; echo 1 > e/f; git add .; git commit -qm a; }
commit() { git add -A; git commit -qm more; }
)sh";

// What a submodule is made to show, one after the other.
const std::vector<std::string> inSubmodule{"echo 2 >> sub/l",
                                           "cd sub; git add l",
                                           "cd sub; git commit -qm 2",
                                           "commit",
                                           ": > sub/n; echo 2 > a",
                                           "rm sub/n",
                                           "mkdir -p sub/x/y; : > sub/x/y/z",
                                           "rm -r sub/x; mkdir sub/o; : > sub/o/n",
                                           "cd sub; git add -f o/n; git commit -qm o",
                                           "commit",
                                           "echo 2 > sub/o/n",
                                           "echo 2 >> sub/d/f",
                                           "cd sub; git checkout -q .",
                                           "cd sub; git checkout -q HEAD~1",
                                           "cd sub; git checkout -q -",
                                           "echo n > sub/.gitignore",
                                           ": > sub/o/m",
                                           "cd sub; git stash -q; git reset -q --soft HEAD~1",
                                           "mv sub sub2",
                                           "mv sub2 sub"};

Story withSubmodule(const char* what, std::string make) {
    Story story{what, {std::move(make)}};
    story.steps.insert(story.steps.end(), inSubmodule.begin(), inSubmodule.end());
    return story;
}

class FollowStory : public testing::TestWithParam<Story> {};

TEST_P(FollowStory, IsTold) {
    test::GitSandbox sandbox;
    sandbox.enterEnvironment();
    const auto& steps = GetParam().steps;
    const auto run = [&](const std::string& script) {
        const auto result = sandbox.run({"sh", "-c", shell + script}, sandbox.work());
        ASSERT_EQ(result.exitCode, 0) << script << "\n" << result.errors;
    };
    run(steps.front());
    SteppedFolder folder(sandbox);
    EXPECT_EQ(differencesInTheEnd(folder, false), "") << "at first";
    for (std::size_t i = 1; i < steps.size(); ++i) {
        run(steps[i]);
        EXPECT_EQ(differencesInTheEnd(folder, false), "") << "after: " << steps[i];
    }
}

INSTANTIATE_TEST_SUITE_P(
    , FollowStory,
    testing::Values(
        withSubmodule("Submodule", "begin; subs add ../lib sub; commit"),
        withSubmodule(
            "SubmoduleInAWorktree",
            "rmdir ../work; mkdir ../first; cd ../first; begin; subs add ../lib sub; commit; "
            "git worktree add -q -b w ../work; cd ../work; subs update --init"),
        withSubmodule("SubmoduleWithItsOwnMetadata", "begin; library sub; git add sub; commit"),
        withSubmodule("SubmoduleWithMetadataElsewhere",
                      "begin; library sub; git init -q --separate-git-dir=../meta sub; "
                      "git add sub; commit"),
        Story{
            "SubmoduleOfASubmodule",
            {"begin; library ../mid; (cd ../mid; subs add ../lib in; commit); subs add ../mid sub; "
             "commit; subs update --init --recursive",
             "echo 2 >> sub/in/l", "cd sub/in; git commit -qam 2", "cd sub; git commit -qam in",
             "commit", ": > sub/in/n", "rm sub/in/n"}},
        Story{"SubmoduleWithRulesElsewhere",
              {"begin; subs add ../lib sub; commit; mkdir sub/v sub/w; : > sub/v/n; : > sub/w/n; "
               "echo v > ../home/ignore; git config --global core.excludesFile ~/ignore; "
               "echo w > .git/modules/sub/info/exclude",
               ": > .git/modules/sub/info/exclude", "rm sub/w/n", ": > ../home/ignore",
               "rm sub/v/n"}},
        Story{"SubmoduleComesAndGoes",
              {"begin", "subs add ../lib sub", "commit", "echo 2 >> sub/l", "git mv sub e/s",
               "commit", "git checkout -q -- .; git -C e/s checkout -q .", "subs deinit -f e/s",
               ": > e/s/n; echo 3 > a", "mkdir e/s/x; : > e/s/x/y", "rm -r e/s/*",
               "subs update --init", "echo 2 >> e/s/l", "git rm -qf e/s", "commit",
               "git revert -n HEAD", "subs update --init", ": > e/s/n"}},
        Story{"SubmoduleThatHoldsAnother",
              {"begin; library ../x; subs add ../lib sub; commit; subs deinit -f sub",
               "mv ../x sub", "rm -rf sub/x"}},
        Story{"SubmoduleThatIsIgnored",
              {"begin; subs add ../lib sub; git config -f .gitmodules submodule.sub.ignore all; "
               "commit",
               "echo 2 > sub/l", "git config submodule.sub.ignore none", ": > sub/n",
               "git config submodule.sub.ignore untracked", "rm sub/n", "cd sub; git checkout -q .",
               "git config submodule.sub.ignore dirty", "cd sub; git commit --allow-empty -qm x"}},
        Story{"Nested",
              {"begin; mkdir -p nest p/q; : > nest/f; : > p/q/f",
               "git init -q nest",
               "rm -rf nest/.git",
               "git clone -q ../lib clone",
               "rm -rf clone/.git",
               "rm -rf clone",
               "git init -q p/q",
               ": > p/q/g",
               "mkfifo p/pipe e/pipe",
               "rm e/pipe; : > e/pipe",
               "rm p/q/.git/HEAD",
               "git -C p/q init -q",
               "mv p/q/.git ../q",
               "mv ../q p/q/.git",
               "git init -q new",
               ": > new/f",
               "rm -rf new/.git; : > new/g",
               "git init -q e",
               "rm -rf e/.git",
               "git worktree add -q -b w w",
               "git worktree remove w",
               "mkdir x; git init -q x/y; git init -q x/z",
               "rm -rf x/y/.git x/z",
               "git init -q x",
               ": > x/y/f",
               "rm -r x/.git"}},
        Story{"NestedWhoseMetadataComeLater",
              {"begin; mkdir ../out nest; echo 'gitdir: ../../there/deep' > ../out/.git; "
               ": > ../out/f; : > nest/f",
               ": > nest/g", "rm -r nest; mv ../out nest",
               "git init -q ../x; mkdir ../there; mv ../x/.git ../there/deep", "rm -r ../there",
               "git init -q ../x; mkdir ../there; mv ../x/.git ../there/deep"}},
        Story{"NestedThatMayBeEnteredOnly",
              {"begin; git init -q nest; chmod 311 nest", "rm nest/.git/HEAD",
               "echo 'ref: refs/heads/x' > nest/.git/HEAD", "chmod 755 nest"}},
        Story{"EmptyBesideRepositories",
              {"git init -q", "for i in 1 2 3 4 5; do git init -q ../$i; done", ": > a"}},
        Story{"MetadataThatMove",
              {"begin", "git init -q --separate-git-dir=../meta .", "echo 2 > a; git add a",
               "git commit -qm 2", "echo 3 > a", "rm .git; mv ../meta .git", "git add a",
               "git commit -qm 3", "mv .git ../there; ln -s ../there .git", "echo 4 > a; git add a",
               "git commit -qm 4"}},
        Story{"MetadataThatReturn",
              {"begin; git init -q --separate-git-dir=../meta .", "rm .git; mv ../meta .git",
               "echo 2 > a; git add a", "git commit -qm 2"}},
        Story{"Configuration",
              {"begin; : > u; : > x.o; echo '*.o' > ignored; : > more; "
               "git config core.excludesFile ignored; git config --add include.path ../e/more",
               "echo u > ignored", "printf '[core]\nexcludesFile = other' > e/more",
               "echo 'x*' > other", "rm e/more", "rm ignored", "echo u > ignored",
               "printf 'a\r\n' > a", "git config core.attributesFile attributes",
               "echo 'a text' > attributes",
               "echo '[include]\npath = deep' > e/more; echo '[core]\nautocrlf' > e/deep",
               "echo > e/deep",
               "echo '*.o' >> ../home/ignore; git config core.excludesFile ~/ignore"}}),
    [](const auto& story) { return std::string(story.param.what); });

TEST(FollowOwn, OperationsOnASubmodule) {
    test::GitSandbox sandbox;
    sandbox.enterEnvironment();
    const auto run = [&](const std::string& script) {
        EXPECT_EQ(sandbox.run({"sh", "-c", shell + script}, sandbox.work()).errors, "");
    };
    run("begin; library sub; git add sub 2>/dev/null; commit");
    const test::RealServices real;
    const auto provider = createNewManagedFolderProviderInstance(real.services);
    const test::FollowedFolder followed(
        provider->provideFor(Path::fromNative(sandbox.work().native())));
    followed.cache.refreshAll();
    auto& adapter = followed.folder->getAdapter();
    const auto sub = followed.root / u"sub";
    for (const bool staged : {false, true}) {
        run("cd sub; echo 2 >> l; git commit -qam 2");
        ASSERT_TRUE(followed.comes(u"sub", LocalStatus::Modified));
        if (staged)
            adapter.addFiles({sub});
        adapter.checkin(sub, u"two");
        ASSERT_TRUE(followed.comes(u"sub", LocalStatus::External)) << staged;
    }
    run(": > sub/n");
    ASSERT_TRUE(followed.comes(u"sub", LocalStatus::Modified));
    run("rm sub/n");
    adapter.moveFile(sub, followed.root / u"e/s");
    ASSERT_TRUE(followed.comes(u"e/s", LocalStatus::Added));
    adapter.checkin({sub, followed.root / u"e/s"}, u"moved");
    ASSERT_TRUE(followed.comes(u"e/s", LocalStatus::External));
    run("echo 3 > e/s/l");
    ASSERT_TRUE(followed.comes(u"e/s", LocalStatus::Modified));
    EXPECT_EQ(test::differences(followed.cached(), followed.asked()), "");
}

TEST(FollowOwn, CorrectionOfTheUsersConfiguration) {
    test::GitSandbox sandbox;
    sandbox.enterEnvironment();
    sandbox.init();
    sandbox.run({"sh", "-c", ": > a; echo '[core' >> ~/.gitconfig"}, sandbox.work());
    SteppedFolder folder(sandbox);
    EXPECT_THROW(folder.followed.asked(), exception::SourceControlException);
    sandbox.run({"sed", "-i", "/core$/d", ".gitconfig"}, sandbox.home());
    EXPECT_EQ(differencesInTheEnd(folder, false), "");
}

// The reader is held up until the kernel's queue has run over, in the middle of the work.
TEST(FollowLosses, WhatHappensWhileEventsAreLost) {
    const auto gate = std::make_shared<std::mutex>();
    platform::InotifyFolderWatcherOptions options;
    options.beforeRead = [gate] { const std::lock_guard lock(*gate); };
    Means means;
    means.makeWatcher = [&] { return std::make_shared<platform::InotifyFolderWatcher>(options); };
    means.around = [&](const std::filesystem::path& folder, const std::function<void()>& work) {
        const std::lock_guard lock(*gate);
        work();
        for (int i = 0; i < 10'000; ++i) {
            ::mknod((folder / "x").c_str(), S_IFREG, 0);
            ::unlink((folder / "x").c_str());
        }
        work();
    };
    auto length = lengthOf(0, 10);
    length.operations = std::min(length.operations / 2, 100U); // each pause is 20,000 events
    follow(length, means);
}

TEST_P(FollowDeathTest, WhatHappensWhereWatchesAreFew) {
    test::expectSuccessInOwnNamespaces([&] {
        const auto& [what, most] = GetParam();
        test::limitInotify(what, most);
        Means means;
        means.makeWatcher = [&] { return std::make_shared<platform::InotifyFolderWatcher>(); };
        means.isPolled = true;
        follow(lengthOf(0, 10), means);
    });
}
INSTANTIATE_TEST_SUITE_P(Limit, FollowDeathTest,
                         testing::Values(std::pair("watches", 64), std::pair("watches", 8),
                                         std::pair("instances", 0)));

} // namespace
} // namespace quendo
