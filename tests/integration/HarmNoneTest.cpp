#include "tests/integration/Scenarios.h"
#include "tests/support/TreeWatch.h"

#include <sys/resource.h>
#include <unistd.h>

namespace quendo::test {
namespace {

using namespace std::string_literals;

/// Everything that reads, on one repository with a file f.
void readAll(const GitSandbox& sandbox, const fs::path& root, const std::string& file = "f") {
    const TemporaryFolder elsewhere;
    const auto path = (root / file).native(), target = (elsewhere.path() / "exported").native();
    for (const std::vector<std::string>& arguments :
         {std::vector{"status"s, root.native()},
          {"status", "--porcelain", "-z", "--ignored", root.native()},
          {"status", "--json", "--all", root.native()},
          {"log", path},
          {"export", path, "HEAD", target}}) {
        auto result = runQuendo(sandbox, arguments);
        if (arguments.front() == "log")
            result.output.clear(); // the revisions before the one that cannot be read
        EXPECT_TRUE(result.exitCode == 0 || notRefused(result).empty())
            << arguments.front() << " " << path << ": " << notRefused(result);
    }
}

TEST(HarmNone, ReadingChangesNothing) {
    const GitSandbox sandbox;
    runScript(sandbox, R"sh(
        fork; sub s; sub t; w .gitignore '*.o'; c; git worktree add -q ../linked
        w s/f 2; stale t/f t/.gitignore; git update-index --untracked-cache --split-index
        ! git merge -q side; w n; w a.o; w added; git add added; stale f h g; w h 2
        printf '#!/bin/sh\nprintf "t\\0/\\0"' > ../hook; chmod +x ../hook
        git config core.fsmonitor "$PWD/../hook"; git update-index --fsmonitor
        stale ../linked/* g; git reflog expire --expire=now --all; git config gc.auto 1)sh");
    const auto before = snapshot(sandbox.root());
    TreeWatch watch(sandbox.root());
    for (const auto* folder : {"work", "linked", "work/s"})
        readAll(sandbox, sandbox.root() / folder);
    EXPECT_THAT(watch.drain(), IsEmpty());
    EXPECT_THAT(changesBetween(before, snapshot(sandbox.root())), IsEmpty());

    // Plain git is seen to take its lock, so the watch sees what it is there for.
    sandbox.git({"status"});
    EXPECT_TRUE(watch.drain().contains((sandbox.work() / ".git/index.lock").native()));
}

// git writes trees when it expands or collapses a sparse index, and renews those that exist.
TEST(HarmNone, ReadingASparseIndexWritesNoObjects) {
    const GitSandbox sandbox;
    runScript(sandbox, R"sh(
        sparse() { w f; w a/f; w b/f; w b/x/f; w d/f; git add -A; git commit -q -m c
            git sparse-checkout set --cone --sparse-index a 2>/dev/null
            git update-index --add --cacheinfo 100644,$(git rev-parse HEAD:f),a/q/r
            touch -d @1600000000 .git/objects/*/*; }
        i; git init -q -b main s; (cd s; sparse); git add s; sparse; w a/f 2; w b/n)sh");
    const auto before = snapshot(sandbox.root());
    TreeWatch watch(sandbox.root());
    readAll(sandbox, sandbox.work(), "a/f");
    readAll(sandbox, sandbox.work() / "s", "a/f");
    EXPECT_THAT(watch.drain(), IsEmpty());
    EXPECT_THAT(changesBetween(before, snapshot(sandbox.root())), IsEmpty());
    sandbox.git({"--no-optional-locks", "ls-files", "-s"});
    EXPECT_THAT(watch.drain(), testing::SizeIs(testing::Gt(3U))); // the watch sees what git does
}

// plant FILE TAG: makes the configuration FILE name a program for everything that git can be told
// to run, with the drivers TAG (by file) and TAG-p (by process). Each program leaves its name
// behind.
constexpr std::string_view plant = R"sh(
bait() {
    local end='exit 1'; case $1 in *clean|*smudge) end=cat;; esac
    printf '#!/bin/sh\ntouch "%s/%s"\n%s\n' "$PWD/../canary" "$1" "$end" > ../bin/"$1"
    chmod +x ../bin/"$1"; printf %s "$PWD/../bin/$1"
}
plant() {
    local f=$1 tag=$2 key lead; mkdir -p ../bin ../canary ../hooks-$tag
    for key in core.fsmonitor core.pager pager.status pager.log pager.diff core.editor core.askPass \
        core.sshCommand core.gitProxy core.alternateRefsCommand '!credential.helper' diff.external \
        diff.$tag.textconv diff.$tag.command merge.$tag.driver filter.$tag.clean \
        filter.$tag.smudge filter.$tag-p.process gpg.program gpg.openpgp.program gpg.ssh.program \
        gpg.x509.program uploadpack.packObjectsHook remote.origin.uploadpack \
        '!submodule.s.update' '!alias.status' '!alias.log' '!alias.st' interactive.diffFilter \
        sequence.editor trailer.x.command; do
        lead=${key%%[a-z]*}; key=${key#!}
        git config -f "$f" "$key" "$lead$(bait "$tag-$key")"
    done
    for key in post-index-change pre-auto-gc reference-transaction post-checkout fsmonitor-watchman
    do cp "$(bait "$tag-hook-$key")" ../hooks-$tag/$key; done
    git config -f "$f" core.hooksPath "$PWD/../hooks-$tag"
    git config -f "$f" filter.$tag.required true; git config -f "$f" log.showSignature true
    git config -f "$f" trace2.normalTarget "$PWD/../canary/$tag-trace2"
    git config -f "$f" trace2.eventTarget "$PWD/../canary/$tag-trace2event"
    git config -f "$f" diff.trustExitCode true; git config -f "$f" core.untrackedCache true
}
content() {
    local tag=$1; w f.$tag; w p.$tag; w .gitattributes "f.$tag filter=$tag diff=$tag merge=$tag
p.$tag filter=$tag-p
"; }
sign() { git update-ref HEAD "$(git cat-file commit HEAD | sed '/^committer/a gpgsig -----BEGIN PGP SIGNATURE-----\n \n iQEzBAABCAAdFiEE\n -----END PGP SIGNATURE-----' | git hash-object -t commit -w --stdin)"; }
)sh";

std::string canaries(const GitSandbox& sandbox) {
    std::string result;
    for (const auto& entry : fs::directory_iterator(sandbox.root() / "canary"))
        result += entry.path().filename().native() + " ";
    return result;
}

TEST(HarmNone, LooksIntoSubmodulesAndNowhereElse) {
    const GitSandbox sandbox;
    const auto work = sandbox.work().native();
    // Its configuration leads git from the submodule to a tree with a submodule of its own.
    runScript(sandbox, R"sh(i; git init -q s; git init -q ../evil/n; cd ../evil/n
        w .gitattributes '* filter=x'; w f; git add -A; git commit -qm n
        git config filter.x.clean 'touch ../../canary/n; cat'; mkdir ../../canary; stale f
        cd - >&2; cd s; w f; git add f
        git update-index --add --cacheinfo 160000,$(git -C ../../evil/n rev-parse HEAD),n
        git commit -qm s; git config core.worktree ../../../evil; cd ..
        git update-index --add --cacheinfo 160000,$(git -C s rev-parse HEAD),s; git commit -qm c)sh");
    EXPECT_EQ(notRefused(runQuendo(sandbox, {"status", "--porcelain", work})), "");
    const auto json = runQuendo(sandbox, {"status", "--json", "--all", work});
    EXPECT_NE(json.output.find("keeps its files elsewhere"), std::string::npos) << json.output;
    EXPECT_EQ(canaries(sandbox), "");
    sandbox.tryGit({"status"});
    EXPECT_EQ(canaries(sandbox), "n "); // git itself follows it

    // git renews the time of a split index's shared part, in a submodule as well.
    runScript(sandbox,
              R"sh(rm -rf s .git; i; git init -q s; (cd s; w f; c; git update-index --split-index)
        sub s; c; touch -d @1600000000 s/.git/sharedindex.*)sh");
    EXPECT_EQ(runQuendo(sandbox, {"status", work}).exitCode, 0);
    const auto times =
        sandbox.run({"sh", "-c", "stat -c %Y s/.git/sharedindex.* | sort -u"}, work).output;
    EXPECT_EQ(times, "1600000000\n");
}

TEST(HarmNone, RunsNothingThatTheRepositoryNames) {
    const GitSandbox sandbox;
    runScript(sandbox, std::string(plant) + R"sh(
        i; w f; a=; for t in low tree inc; do content $t; a+=$(cat .gitattributes)$'\n'; done
        w .gitattributes "$a"; git init -q -b main s; git init -q -b main n
        for r in s n; do (cd $r; content $r; w f; git add -A; git commit -q -m $r); done
        sub s; git add .gitattributes f ./*.low ./*.tree ./*.inc; git commit -q -m c; sign
        git submodule --quiet absorbgitdirs 2>/dev/null
        plant "$(git -C s rev-parse --absolute-git-dir)/config" s; plant n/.git/config n
        git config extensions.worktreeConfig true; plant "$PWD/../included" inc
        plant .git/config low; plant .git/config.worktree tree
        git config include.path "$PWD/../included"; mv ../hooks-low .git/own-hooks
        cp .git/own-hooks/* .git/hooks/; stale f ./*.* s/* n/*)sh");
    for (const auto* folder : {".", "s", "n"})
        readAll(sandbox, sandbox.work() / folder);
    readAll(sandbox, sandbox.work(), "f.low");
    readAll(sandbox, sandbox.work(), "p.tree");
    EXPECT_EQ(canaries(sandbox), "");

    // Every bait that matters most is taken by plain git.
    std::vector<std::string> status;
    for (const std::string tag : {"low", "tree", "inc", "s", "n"})
        status.insert(status.end(), {"-c", "filter." + tag + "-p.process="});
    status.emplace_back("status");
    sandbox.tryGit({"status"});
    sandbox.tryGit(status);
    sandbox.tryGit(status, sandbox.work() / "n");
    sandbox.tryGit({"log", "-1"});
    const auto taken = canaries(sandbox);
    for (const auto* bait : {"core.fsmonitor", "low-filter.low.clean", "s-filter.s.clean",
                             "n-filter.n.clean", "-p.process", "-gpg.", "hook-post-index-change"})
        EXPECT_NE(taken.find(bait), std::string::npos) << bait << " hangs there for nothing";
}

TEST(HarmNone, RunsNothingForACraftedPartialClone) {
    for (const std::string url :
         {"$PWD/../up", "ssh://host/x", "ext::$(bait ext) %S", "file://$PWD",
          // Without a program for the server's side, for which all of ssh is refused.
          "ssh://127.0.0.1:1/x\"; git config --unset-all remote.origin.uploadpack; : \"",
          "git://127.0.0.1:1/x"}) {
        const GitSandbox sandbox;
        runScript(sandbox, std::string(plant) + R"sh(
            i; w f "$(seq 99)"; w o; c; git mv f g; echo >> g; c; git mv g f; c; w f 2; c; sign
            for blob in HEAD~3:f HEAD~2:g HEAD:f HEAD:o; do
                b=$(git rev-parse $blob); rm -f .git/objects/${b:0:2}/${b:2}; done
            git init -q ../up; plant .git/config low
            git config core.repositoryFormatVersion 1; git config extensions.partialClone origin
            git config remote.origin.promisor true; git config protocol.ext.allow always
            git config protocol.allow always
            git config remote.origin.url ")sh" +
                               url + R"sh("; stale f o; w n)sh");
        readAll(sandbox, sandbox.work());
        readAll(sandbox, sandbox.work(), "o");
        EXPECT_EQ(canaries(sandbox), "") << url;
        sandbox.tryGit({"-c", "protocol.allow=always", "cat-file", "blob", "HEAD:f"});
        EXPECT_NE(canaries(sandbox), "") << url << " hangs there for nothing";
    }
}

struct Place {
    std::string path; ///< relative to the sandbox's root; what lies there is replaced
    bool mustRefuse;  ///< it may answer as if nothing were there otherwise
    std::string asked = "work";
};

// put KIND FILE; whoever may make no devices links to one.
constexpr std::string_view put = R"sh(
put() {
    case $1 in
        FIFO) mkfifo "$2";; huge*) truncate -s 20G "$2";; /dev/*) ln -s "$1" "$2";;
        socket) perl -MIO::Socket::UNIX -e 'chdir shift; IO::Socket::UNIX->new(
            Local => shift, Listen => 1) || die' "${2%/*}" "${2##*/}";;
        device) mknod "$2" c 1 5 2>/dev/null || ln -s /dev/zero "$2";;
    esac
}
)sh";

/// The records of a status, but for those of one path.
std::set<Record> recordsWithout(const std::string& path, const std::string& output) {
    const auto records = recordsIn(output);
    std::set<Record> result(records.begin(), records.end());
    std::erase_if(result, [&](const Record& record) { return record.path == path; });
    return result;
}

TEST(HarmNone, OnlyRegularFilesAreReadAsMetadata) {
    const GitSandbox sandbox;
    runScript(sandbox, R"sh(
        i; w f; w d/f; w g.o; c; git worktree add -q ../linked; git init -q -b main ../split
        (cd ../split; w f; c; git update-index --split-index; w f 2); mv .git/config ../config
        cp ../config .git/config; git config include.path ../../inc; touch ../inc ../ign
        git config core.excludesFile "$PWD/../ign"; w f 2; w n; w a.o; w d/n; stale d/f)sh");
    std::string shared;
    for (const auto& entry : fs::directory_iterator(sandbox.root() / "split/.git"))
        if (const auto name = entry.path().filename().native(); name.starts_with("sharedindex."))
            shared = "split/.git/" + name;
    const std::vector<Place> places = {
        {"work/.git", true},
        {"work/.git/index", true},
        {"work/.git/config", true},
        {"work/.git/HEAD", true},
        {"work/.git/refs/heads/main", true},
        {"work/.git/packed-refs", false},
        {"work/.git/info/exclude", false},
        {"work/.git/objects/info/alternates", false},
        {"work/.gitignore", false},
        {"work/d/.gitignore", false},
        {"work/.gitattributes", false},
        {"work/.gitmodules", false},
        {"ign", false},
        {"inc", false},
        {"linked/.git", true, "linked"},
        {"work/.git/worktrees/linked/commondir", true, "linked"},
        {"work/.git/worktrees/linked/HEAD", true, "linked"},
        {shared, true, "split"},
    };
    for (std::size_t row = 0; row < places.size(); ++row) {
        const auto& [path, mustRefuse, asked] = places[row];
        const auto at = sandbox.root() / path, aside = sandbox.root() / "aside";
        const auto own = path.starts_with(asked + "/") ? path.substr(asked.size() + 1) : path;
        if (fs::exists(at))
            fs::rename(at, aside);
        std::set<Record> absent;
        if (!mustRefuse)
            absent = recordsWithout(
                own, sandbox.git({"status", "--porcelain", "-uall", "-z"}, sandbox.root() / asked));
        // Three kinds everywhere, the like of them where most is read.
        for (const std::string kind :
             {"FIFO", "/dev/zero", "huge file", "socket", "/dev/full", "device"}) {
            if (row % 5 != 1 && (kind == "socket" || kind == "/dev/full" || kind == "device"))
                continue;
            SCOPED_TRACE(kind + " in place of " + path);
            runScript(sandbox, std::string(put) + "put '" + kind + "' '" + at.native() + "'");
            const auto result = runQuendo(
                sandbox, {"status", "--porcelain", "-z", (sandbox.root() / asked).native()});
            fs::remove(at);
            if (result.exitCode != 0 || mustRefuse) {
                EXPECT_EQ(notRefused(result), "");
            } else {
                EXPECT_TRUE(recordsWithout(own, result.output) == absent) << result.output;
                EXPECT_EQ(result.errors, "");
            }
            rusage used{};
            ::getrusage(RUSAGE_CHILDREN, &used);
            ASSERT_LT(used.ru_maxrss, 1'258'291) << "KiB used by a process that was started";
        }
        if (fs::exists(aside))
            fs::rename(aside, at);
    }
}

// Only root can give a folder away; for everyone else the program and its git run with a library
// that tells them another user.
TEST(HarmNone, AForeignOwnerIsRefusedUntilTheUserTrustsHim) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w f; c; w f 2; w n");
    std::map<std::string, std::string> asOther;
    if (::geteuid() == 0)
        runScript(sandbox, "chown -R 4242:4242 .");
    else
        asOther = {{"LD_PRELOAD", QUENDO_OTHER_USER}, {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
    const std::vector<std::string> arguments{"status", "--porcelain", sandbox.work().native()};
    const auto refused = runQuendo(sandbox, arguments, asOther);
    EXPECT_EQ(notRefused(refused), "");
    EXPECT_NE(refused.errors.find("safe.directory"), std::string::npos) << refused.errors;
    for (const auto& trusted : {sandbox.work().native(), "*"s}) {
        sandbox.git({"config", "--global", "--replace-all", "safe.directory", trusted},
                    sandbox.home());
        const auto answered = runQuendo(sandbox, arguments, asOther);
        EXPECT_EQ(answered.output, ".M\tf\n??\tn\n") << answered.errors;
    }
}

} // namespace
} // namespace quendo::test
