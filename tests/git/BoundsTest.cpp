#include "quendo/adapter/QueryOrigin.h"
#include "quendo/git/FailedQueries.h"
#include "quendo/git/IndexSizes.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SuspendedFilters.h"
#include "tests/git/Copy.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Takes the place of the C library's in this program: a file system that does not answer.
std::atomic<bool> isStuck{false};
std::atomic<int> waiting{0};

} // namespace

extern "C" int lstat(const char* path, struct stat* status) noexcept {
    for (waiting += isStuck; isStuck;)
        isStuck.wait(true);
    return ::fstatat(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}

namespace quendo::git {
namespace {

using namespace std::chrono_literals;

GitOptions smallBounds() {
    GitOptions options;
    options.processorLimit = 300ms;
    options.memoryLimit = options.contentMemoryLimit = 64U << 20U;
    options.outputLimit = 64U << 10U;
    options.stallLimit = 500ms;
    return options;
}

/// What an operation says when it fails; empty when it does not.
std::string failure(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const exception::SourceControlException& error) {
        EXPECT_EQ(std::string_view(error.what()).find('\n'), std::string::npos) << error.what();
        return error.what();
    }
    return "";
}

void readStates(Copy& copy) {
    copy.adapter().getStatus(copy.root(), true);
}
void readLog(Copy& copy) {
    copy.adapter().listRevisions(copy.at("a"), std::nullopt);
}
void exportHead(Copy& copy) {
    copy.sh("rm -f exported");
    copy.adapter().exportRevision(copy.at("a"), *copy.adapter().getCurrentRevision(copy.at("a")),
                                  copy.at("exported"));
}

// Each of these took git's whole life, or all the memory that there was.
TEST(BoundsTest, OneRepositoryTakesNoMoreThanItsShare) {
    struct Row {
        std::string what, script;
        void (*question)(Copy&);
        std::vector<std::string> says; ///< nothing: it answers
    };
    const std::string pattern =
                          "for i in $(seq 40); do printf 'a*'; done | sed s,^,/, > .gitignore\n"
                          "echo b >> .gitignore; d=$(printf %0240d 0 | tr 0 a)\n",
                      loop = "for i in 0 1 2 3 4 5 6 7 8; do for j in $(seq 12); do\n"
                             "echo \"[include] path=i$((i+1))\"; done > .git/i$i; done\n"
                             "touch .git/i9; ",
                      spin = "while :; do :; done", sparse = "truncate -s 100G ";
    const std::string tree =
        "t=$(git mktree < /dev/null); for i in $(seq 6); do t=$(for n in a b c d e f; do\n"
        "printf '040000 tree %s\\t%s\\n' $t $n; done | git mktree --missing); [ $i = 1 ] &&\n"
        "t=$(printf '100644 blob %s\\tf\\n' $(git rev-parse HEAD:a) | git mktree); done\n"
        "git update-ref HEAD $(git commit-tree -m bomb $t)";
    const Row rows[] = {
        {"a pattern that matches for ever",
         pattern + "mkdir $d; touch $d/x",
         readStates,
         {"git status", "more than 0.3 s of processor time", "/.gitignore has a pattern with 40 "}},
        {"a filter that spins",
         "echo '* filter=f' > .gitattributes; touch a\n"
         "git config --global filter.f.clean '" +
             spin + "'",
         readStates,
         {"processor time", "the filter 'f' of your own configuration"}},
        {"a filter that hangs",
         "echo '* filter=f' > .gitattributes; touch a\n"
         "git config --global filter.f.clean 'exec sleep 1000'",
         readStates,
         {"git status hangs", "the filter 'f'", "gave no sign of life"}},
        {"includes of includes",
         loop + "git config include.path i0",
         readStates,
         {"includes too many files", "/.git/i9"}},
        {"the same for the log",
         loop + "git config include.path i0",
         readLog,
         {"includes too many files"}},
        {"the same under a condition",
         loop + "git config includeIf.gitdir:**.path i0",
         readStates,
         {"git config", "of processor time", "--show-origin"}},
        {"a device as configuration",
         "git config include.path /dev/urandom",
         readStates,
         {"/dev/urandom is a device", "replace it"}},
        {"large configuration",
         sparse + ".git/c; git config include.path c",
         readStates,
         {"/.git/c has 107374182400 bytes"}},
        {"a device of attributes", "git config core.attributesFile /dev/urandom", readStates, {}},
        {"the same for an export", "git config core.attributesFile /dev/urandom", exportHead, {}},
        {"a FIFO of attributes",
         "mkfifo ../p; git config core.attributesFile ../p",
         readStates,
         {}},
        {"large excludes", sparse + "../x; git config core.excludesFile ../x", readStates, {}},
        {"large excludes of the user",
         "mkdir -p ~/.config/git\n" + sparse + "~/.config/git/ignore",
         readStates,
         {}},
        {"large rules in a folder",
         sparse + "n/.gitignore",
         readStates,
         {"ran out of memory", "/n/.gitignore has 107374182400 bytes"}},
        {"names from a device", "git config mailmap.file /dev/zero", readLog, {}},
        {"an order from a device",
         "git config diff.orderFile /dev/zero; echo 2 > a; echo 2 > b",
         readStates,
         {}},
        {"a tree of trees",
         tree,
         readStates,
         {"git status", "printed more than", "damaged commit"}},
        {"content that is converted",
         sparse.substr(0, 12) + "100M a\n"
                                "git add a; git commit -qm 2; echo 'a eol=crlf' > .gitattributes",
         exportHead,
         {"/a with 104857600 bytes takes more memory", "conversion of line ends"}},
        {"content that is not",
         sparse.substr(0, 12) + "100M a; git add a; git commit -qm 2",
         exportHead,
         {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Copy copy(smallBounds(), std::string(Copy::usual) + "; touch -d @1 *; " + row.script);
        const auto start = std::chrono::steady_clock::now();
        const auto words = failure([&] { row.question(copy); });
        EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
        EXPECT_EQ(words.empty(), row.says.empty()) << words;
        for (const auto& word : row.says)
            EXPECT_THAT(words, HasSubstr(word));
    }
}

// Nobody waits for a query in the background, so it does not cost the same again.
TEST(BoundsTest, AQueryInTheBackgroundDoesNotFailTwice) {
    Copy copy(smallBounds(), "git init -q; mkdir d e; touch d/f e/f; printf x > .gitignore");
    const OtherGit slow("status", "echo >> ../started; while :; do :; done");
    auto options = smallBounds();
    options.executable = slow.path();
    const auto adapter = GitAdapterFactory(options).createAdapter(copy.root(), nullptr);
    const auto ask = [&](const char* path, QueryUrgency urgency) {
        const QueryOrigin::WorkScope scope(std::make_shared<QueryOrigin>(urgency));
        return failure([&] { adapter->getStatus({copy.at(path)}); });
    };
    const auto starts = [&] { return copy.sh("wc -l < ../started"); };
    const auto words = ask("d", QueryUrgency::Background);
    EXPECT_THAT(words, HasSubstr("processor time"));
    EXPECT_EQ(ask("d", QueryUrgency::Background), words);
    EXPECT_EQ(ask(".", QueryUrgency::Background), words); // holds the other
    EXPECT_EQ(starts(), "1\n");
    ask("e", QueryUrgency::Background);
    ask("d", QueryUrgency::Requested);
    EXPECT_EQ(starts(), "3\n");
}

TEST(BoundsTest, AFailedQueryIsTriedAgainInTime) {
    using Clock = FailedQueries::Clock;
    Copy copy({},
              "git init -q; echo '*' > .gitignore; mkdir n; echo > n/rules; touch -d @1 n/rules");
    const auto repository = Repository::open(copy.root());
    FailedQueries queries;
    const Clock::time_point start{};
    const FailedQueries::Query query{"states", {"n"}};
    const auto isKnown = [&](std::chrono::seconds after, const FailedQueries::Query& asked) {
        return !failure([&] { queries.throwIfKnown(asked, start + after); }).empty();
    };
    const auto fail = [&](std::chrono::seconds after, const FailedQueries::Query& asked,
                          bool hung = false) {
        queries.add(asked,
                    {.error = exception::ToolError("slow"),
                     .stamps = FailedQueries::stampsOf(repository),
                     .cost = 60s,
                     .hung = hung,
                     .suspect = copy.at("n/rules").toNative()},
                    start + after);
    };
    fail(0s, query);
    EXPECT_TRUE(isKnown(599s, query));
    EXPECT_TRUE(isKnown(599s, {"states"}));
    EXPECT_TRUE(isKnown(599s, {"states", {"a", "n"}}));
    EXPECT_FALSE(isKnown(1s, {"states", {"n/x"}}));
    EXPECT_FALSE(isKnown(1s, {"branch"}));
    EXPECT_FALSE(isKnown(600s, query));
    fail(600s, query);
    EXPECT_TRUE(isKnown(1799s, query));
    // What may be the cause has changed: soon, but not at once.
    copy.sh("echo 2 >> n/rules");
    EXPECT_TRUE(isKnown(629s, query));
    EXPECT_FALSE(isKnown(630s, query));
    queries.forget({"states"});
    EXPECT_FALSE(isKnown(601s, query));

    fail(0s, query, true);
    EXPECT_FALSE(isKnown(120s, query));
    queries.forget(query);
    for (const char* path : {"a", "b", "c", "d"})
        fail(0s, {"states", {path}});
    EXPECT_TRUE(isKnown(1s, {"states", {"e"}})); // it is all of them
}

TEST(BoundsTest, AFilterThatHungIsLeftOutForAWhile) {
    auto options = smallBounds();
    options.stallLimit = 100ms;
    Copy copy(options,
              std::string(Copy::usual) +
                  "; echo '* filter=f' > .gitattributes\n"
                  "git config --global filter.f.clean 'echo >> ../started; exec sleep 999'\n"
                  "git config --global filter.f.required true; touch -d @1 a b; echo 2 >> c");
    EXPECT_THAT(failure([&] { readStates(copy); }), HasSubstr("the filter 'f'"));
    const auto started = copy.sh("wc -l < ../started");
    const auto states = copy.adapter().getStatus(copy.root(), true);
    EXPECT_EQ(toUtf8(*states.at(copy.at("a")).findProperty(property::unverified)), "f");
    EXPECT_EQ(states.at(copy.at("c")).getState(), LocalStatus::Modified);
    EXPECT_EQ(copy.sh("wc -l < ../started"), started);
    copy.sh("git config --global filter.f.clean cat"); // the user has mended it
    EXPECT_EQ(copy.adapter().getStatus({copy.at("a")}).at(copy.at("a")).getState(),
              LocalStatus::Unmodified);

    SuspendedFilters filters(10min);
    const SuspendedFilters::Drivers drivers{{"lfs", "git-lfs clean %f\n"}, {"x", "/bin/x -a\n"}};
    const SuspendedFilters::Clock::time_point start{};
    EXPECT_THAT(filters.suspend(drivers, {}, start), IsEmpty());
    EXPECT_THAT(filters.suspend(drivers, {"sh -c git-lfs clean 'f'"}, start), ElementsAre("lfs"));
    EXPECT_THAT(filters.among(drivers, start + 599s), ElementsAre("lfs"));
    EXPECT_THAT(filters.among({{"lfs", "other\n"}}, start), IsEmpty());
    EXPECT_THAT(filters.among(drivers, start + 10min), IsEmpty());
    EXPECT_THAT(filters.suspend(drivers, {"something"}, start + 11min), ElementsAre("lfs", "x"));
    EXPECT_THAT(filters.among(drivers, start + 30min), ElementsAre("lfs"));
}

TEST(BoundsTest, AnIndexTellsTheSizeOfItsFiles) {
    for (const std::string format : {"sha1", "sha256"})
        for (const std::string version : {"2", "3", "4"}) {
            Copy copy({}, "git init -q --object-format=" + format +
                              "; mkdir d; truncate -s 10000 d/f; truncate -s 200 d/g; touch i\n"
                              "git add .; git add -N i; git update-index --add --cacheinfo "
                              "100644,$(git hash-object i),$(printf %05000d 0)\n"
                              "echo > z; git add z; git update-index --index-version=" +
                              version);
            const auto index = copy.at(".git/index").toNative();
            EXPECT_EQ(sizeOfTrackedFiles(index), 10'201U) << format << " " << version;
            fs::resize_file(index, 100);
            EXPECT_EQ(sizeOfTrackedFiles(index), 0U);
        }
}

TEST(BoundsTest, AnEndlessVersionIsNone) {
    const OtherGit endless("version", "exec yes");
    EXPECT_THAT(
        toUtf8(
            GitAdapterFactory({.executable = endless.path(), .versionLimit = 200ms}).getProblem()),
        HasSubstr("hangs when asked for its version"));
}

TEST(BoundsTest, AFileSystemThatHangsHoldsUpNoGetter) {
    Copy copy({}, "git init -q");
    const auto adapter = GitAdapterFactory().createAdapter(copy.root(), nullptr);
    isStuck = true;
    auto stuck = std::async(std::launch::async, [&] { adapter->getMetadataFolder(); });
    while (waiting == 0)
        std::this_thread::yield();
    auto quick = std::async(std::launch::async, [&] {
        adapter->setCredentialProvider({});
        return adapter->getRootFolder();
    });
    EXPECT_EQ(quick.wait_for(10s), std::future_status::ready);
    isStuck = false;
    isStuck.notify_all();
    EXPECT_EQ(quick.get(), copy.root());
    stuck.get();
}

// What is large and honest is answered within the bounds that every host gets.
TEST(BoundsTest, LargeRepositoriesPass) {
    if (!test::isLong)
        GTEST_SKIP() << "writes a 100,000-file repository: long form only";
    Copy copy(
        {},
        "git init -q; for d in $(seq 100); do mkdir $d; (cd $d; seq 1000 | split -l1 -a3); done");
    copy.sh("head -c 300M /dev/urandom > a; seq 40000000 > t; echo 't eol=crlf' > .gitattributes");
    copy.sh("git add a t .gitattributes");
    copy.sh("git add .; git commit -qm 1; touch -d @1 */*; touch -d @1 a t");
    EXPECT_EQ(copy.adapter().getStatus(copy.root(), true).size(), 100'104U);
    exportHead(copy);
    copy.sh("cmp a exported; rm exported");
    copy.adapter().exportRevision(copy.at("t"), *copy.adapter().getCurrentRevision(copy.at("t")),
                                  copy.at("exported"));
    copy.sh("test $(tr -dc '\\r' < exported | wc -c) = 40000000");
}

} // namespace
} // namespace quendo::git
