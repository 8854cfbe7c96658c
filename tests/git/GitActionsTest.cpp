#include "quendo/adapter/IgnoreRuleEditor.h"
#include "tests/git/Copy.h"

namespace quendo::git {
namespace {

// "a" is in conflict, "b" merges without one, "c" is deleted by us and changed by them.
const std::string merge = "git checkout -qb side; echo s > a; echo s > b; echo s > c\n"
                          "git commit -qam side; git checkout -q main; echo m > a\n"
                          "git rm -q c; git commit -qam main; ! git merge -q side >&2\n";

TEST(GitActionsTest, DoesWhatItMeans) {
    struct Case {
        std::string script;
        Operation operation;
        std::string status, check; ///< what git says then; a command that must succeed
    };
    const Case cases[] = {
        // Commits just these, leaves other staging alone.
        {"echo 2 > a; echo 2 > b; git add b; echo new > new; rm c", checkin({"a", "c", "new"}),
         "M  b\n", "git log -1 --format=%B | grep -qx '#1 is mended'; ! git cat-file -e HEAD:c"},
        {"echo 2 > a; echo 3 > n/x; echo u > n/u", checkin({"n"}), " M a\n?? n/u\n", ""},
        {"git rm -q --cached a; echo 2 > b", checkin({"a", "b"}), "?? a\n",
         "! git cat-file -e HEAD:a; git cat-file -p HEAD:b | grep -q 2"},
        {merge + "echo r > a; git add a; git rm -q c", checkin({"a", "b", "c"}), "",
         "git rev-parse -q --verify HEAD^2"},
        {"", checkin({}), "", "test $(git log --oneline | wc -l) = 1"},
        // Adds files and nothing below folders.
        {"mkdir f; echo 1 > f/g; echo 1 > h; ln -s f l; echo 2 > a", add({"f", "h", "l", "a"}),
         "M  a\nA  h\nA  l\n?? f/g\n", ""},
        {"git rm -q --cached a; echo 2 > a; echo 1 > z.o; git add -f z.o; echo 2 > z.o",
         add({"a", "z.o"}), "M  a\nA  z.o\n", ""},
        {"rm -r n; echo f > n", add({"n"}), "A  n\nD  n/x\nD  n/y\n", ""},
        // Removes from index and disk, and folders left empty.
        {"", remove({"a", "n/x"}), "D  a\nD  n/x\n", "test ! -e a -a ! -e n/x -a -e n/y"},
        {"echo u > n/u", remove({"n"}), "D  n/x\nD  n/y\n?? n/u\n", ""},
        {"rm -r n", remove({"n/x", "n/y"}), "D  n/x\nD  n/y\n", "test ! -e n"},
        {merge, remove({"c"}), "UU a\nM  b\n", ""},
        // Moves what is there, or what has been moved.
        {"echo 2 > a", move("a", "f/g/e"), "D  a\nAM f/g/e\n", "test ! -e a"},
        {"echo u > n/u", move("n", "m"), "A  m/x\nA  m/y\nD  n/x\nD  n/y\n?? m/u\n", ""},
        {"", move("a", "A"), "A  A\nD  a\n", "test -e A -a ! -e a"},
        {"mv a e; echo 2 >> e", move("a", "e"), "D  a\nAM e\n", ""},
        {"mv n m; echo u > m/u", move("n", "m"), "A  m/x\nA  m/y\nD  n/x\nD  n/y\n?? m/u\n", ""},
        // Gives changes up, and nothing else.
        {"echo 2 > a; git add a; echo 3 > a; rm b; git rm -q c; chmod +x d; echo 1 > e; git add e",
         revert({"a", "b", "c", "d", "e"}), "?? e\n", "test ! -x d; grep -q 1 e"},
        {"git rm -q --cached a; echo mine > a", revert({"a"}), " M a\n", "grep -q mine a"},
        {"rm -r n; ln -s x d2; rm a; ln -s b a; git add a d2", revert({"n", "a", "d2"}), "?? d2\n",
         "test ! -L a"},
        {merge + "echo edited > a", revert({"a", "c"}), "M  b\n?? c\n", "grep -qx m a"},
        {merge + "git rm -q --cached b; echo 1 > new; git add new; echo 2 > d; echo 1 > u", discard,
         " M b\n?? new\n?? u\n", "! git rev-parse -q --verify MERGE_HEAD; grep -qx m a"},
        // Resolves to what is on disk.
        {merge + "printf '<<<<<<< a\\n>>>>>>> b\\n=======\\n' > a", resolve("a"),
         "M  a\nM  b\n"
         "DU c\n",
         ""},
        {merge + "rm c", resolve("c"), "UU a\nM  b\n", ""},
        // Ignores just this.
        {"mkdir 'q[1]'; echo 1 > 'q[1]/ *!'; echo 1 > q1; printf '*.o' > .gitignore",
         ignore("q[1]/ *!"), " M .gitignore\n?? q1\n", "git check-ignore -q 'q[1]/ *!'"},
        // Several in one step: with one rule more the file is too large to be read again.
        {"mkdir f; echo 1 > f/g; echo 1 > '#f '; touch x.o\n"
         "head -c 16777212 /dev/zero | tr '\\0' '#' >> .gitignore",
         [](Copy& copy) {
             const auto editor = copy.adapter().getSubsystem(typeid(IgnoreRuleEditor));
             std::any_cast<IgnoreRuleEditor*>(editor)->ignoreFiles(
                 copy.all({"f", "#f ", "x.o", "f"}));
         },
         " M .gitignore\n", "test $(wc -l < .gitignore) = 4"},
        {"chmod -w a n/x", checkout({"a", "n"}), "",
         "test $(stat -c %a a) = 644 -a $(stat -c %a n/x) = 444"},
    };
    for (const auto& one : cases) {
        Copy copy;
        copy.sh(one.script.empty() ? ":" : one.script);
        EXPECT_NO_THROW(one.operation(copy)) << one.script;
        EXPECT_EQ(copy.status(), one.status) << one.script;
        copy.sh(one.check.empty() ? ":" : one.check);
        copy.sh("git fsck --strict 2>&1; test -z \"$(ls .git/quendo 2>/dev/null)\"");
    }
}

TEST(GitActionsTest, RefusesWhatItCannotDoWhole) {
    struct Case {
        std::string script;
        Operation operation;
        std::string words;
    };
    const Case cases[] = {
        {"", checkin({"a"}), "nothing to check in"},
        {"echo 2 > a; echo 1 > z.o", checkin({"a", "z.o"}), "ignored by Git"},
        {"echo 2 > a", [](Copy& copy) { copy.adapter().checkin(copy.at("a"), u" \n"); },
         "needs a message"},
        {merge, checkin({"a", "b"}), "in conflict"},
        {merge + "git add a c", checkin({"a"}), "Git checks a merge in whole; check these in"},
        {"git rm -q --cached a; echo 2 > b; git add b", checkin({"a"}), "with all that is staged"},
        {"git init -q ../s; git -C ../s commit -q --allow-empty -m s; git submodule --quiet add "
         "../s s\n"
         "git commit -qm sub; echo 2 > s/f; git -C s add f",
         checkin({"s"}), "check in there first"},
        {"", add({"none"}), "does not exist"},
        {"echo 1 > z; echo 1 > z.o", add({"z", "z.o"}), "ignored by Git"},
        {merge + "echo 1 > z", add({"z", "a"}), "in conflict"},
        {"git init -q f; echo 1 > f/g", add({"f/g"}), "a working copy of its own"},
        {"mkfifo f", add({"f"}), ""},
        {"ln -s n l", add({"l/x"}), ""},
        {"echo 2 > b", remove({"a", "b"}), "exists nowhere else"},
        {"echo 2 > b; git add b; rm b", remove({"b"}), "exists nowhere else"},
        {"echo 1 > e; git add e", remove({"e"}), "exists nowhere else"},
        {merge + "echo edited > a", remove({"a"}), "exists nowhere else"},
        {"echo 1 > z", remove({"a", "z"}), "not under source control"},
        {"", remove({"a", "none"}), "not under source control"},
        {"", move("a", "b"), "exists already"},
        {"", move("a", "n"), "exists already"},
        {"", move("n", "n/m"), "into itself"},
        {"echo 1 > z", move("z", "y"), "not under source control"},
        {"rm a", move("a", "e"), "do not exist"},
        {"rm a", move("a", "b"), "under source control already"},
        {"echo f > f", move("a", "f/g/e"), "is not a folder"},
        {merge, move("a", "e"), "in conflict"},
        {"echo 1 > z; echo 2 > a", revert({"a", "z"}), "nothing to go back to"},
        {"rm a; mkdir a; echo mine > a/u; echo 2 > b", revert({"a", "b"}), "not empty"},
        {"rm -r n; echo mine > n", revert({"n/x", "n/y"}), "is a file"},
        {"mv n m; ln -s m n; rm a", discard, "is a symbolic link"},
        {merge, resolve("a"), "conflict markers"},
        {"", resolve("a"), "not in conflict"},
        {"", ignore("a"), "under source control"},
        {"touch 'l\nl'", ignore("l\nl"), "line end"},
        {"rm .gitignore; ln -s a .gitignore; touch z", ignore("z"), "not a regular file"},
        {"", add({"../outside"}), "does not belong"},
        {"", remove({".git/config"}), "does not belong"},
        {"ln -s .. l; touch ../other; chmod -w ../other a", checkout({"a", "l/other"}),
         "made writable"},
        // A hook of each stage, and what it says.
        {"printf '#!/bin/sh\\necho no: $0 >&2; exit 1\\n' > .git/hooks/pre-commit\n"
         "chmod +x .git/hooks/pre-commit; echo 2 > a; echo new > new",
         checkin({"a", "new"}), "no: .git/hooks/pre-commit"},
        {"printf '#!/bin/sh\\necho no >&2; exit 1\\n' > .git/hooks/prepare-commit-msg\n"
         "chmod +x .git/hooks/prepare-commit-msg; echo new > new",
         checkin({"new"}), "no"},
        {"printf '#!/bin/sh\\ngit add b; echo no >&2; exit 1\\n' > .git/hooks/commit-msg\n"
         "chmod +x .git/hooks/commit-msg; echo 2 > b; echo new > new",
         checkin({"new"}), "no"},
        {"printf '#!/bin/sh\\necho no >&2; exit 1\\n' > .git/hooks/post-checkout\n"
         "chmod +x .git/hooks/post-checkout; echo 2 > a; git add a; echo 3 > a",
         revert({"a"}), "no"},
        {"git config filter.f.smudge false; git config filter.f.clean cat\n"
         "git config filter.f.required true\n"
         "echo 'b filter=f' > .git/info/attributes; echo 2 > a; echo 2 > b; git add a",
         revert({"a", "b"}), "smudge filter f failed"},
        {"git config filter.f.smudge false; git config filter.f.required true\n"
         "echo 'n/y filter=f' > .git/info/attributes; rm -r a n",
         revert({"a", "n"}), "smudge filter f failed"},
    };
    for (const auto& one : cases) {
        Copy copy;
        copy.sh(one.script.empty() ? ":" : one.script);
        const auto words = copy.refusal(one.operation);
        EXPECT_FALSE(words.empty()) << one.script;
        EXPECT_NE(words.find(one.words), std::string::npos) << one.script << "\n" << words;
    }
}

// A git that does one thing and fails before, or without, the rest.
TEST(GitActionsTest, PutsBackWhatAGitThatFailsHalfWayLeaves) {
    struct Case {
        const char *command, *instead;
        std::string script;
        Operation operation;
    };
    const Case cases[] = {
        {"restore", "rm -f a b; echo torn > a; exit 1", "echo 2 > a; echo 2 > b; git add b",
         revert({"a", "b"})},
        {"mv", "mv a e; exit 1", "echo 2 > a", move("a", "e")},
        {"mv", "mv n f/m; exit 1", "", move("n", "f/m")},
        {"update-index", "exit 1", "", remove({"a", "n/x"})},
    };
    for (const auto& one : cases) {
        const OtherGit git(one.command, one.instead);
        Copy copy({.executable = git.path().native()});
        copy.sh(one.script.empty() ? ":" : one.script);
        EXPECT_NE(copy.refusal(one.operation), "") << one.command << ": " << one.instead;
    }
}

// Afterwards git aborts, skips and continues as after its own hard reset, which leaves nothing of
// the commit at which it stopped.
TEST(GitActionsTest, DiscardingLeavesWhatIsUnderWayUsable) {
    struct Case {
        const char *script, *command;
    };
    const char* start = R"sh(git init -q; c() { git add -A; git commit -qm "$1"; }
        b() { git checkout -q "$@"; }
        for f in a b d; do echo $f > $f; done; mkdir n; echo x > n/x; c base; b -b topic; echo t > a
        echo new > new; mkdir t; echo 1 > "$(printf 't/u\t')"; c t1; echo 2 >> new; rm d; c t2
        echo y > n/y; c t3; b main; echo m > a; echo m > d; c m1; b topic
        )sh";
    const Case cases[] = {
        {"git rebase main", "rebase"}, // both changed a file, and new ones beside
        {"git rebase --apply main", "rebase"},
        {"b main; echo m > new; c m2; b topic; git rebase main", "rebase"}, // both added a file
        {"b main; git rm n/x; git mv b e; c m2; b topic; echo X > n/x; echo B > b; c t4\n"
         "git rebase --onto main HEAD~",
         "rebase"}, // one deleted what the other changed
        {"b main; git rm b; c m2; b topic; git mv b e; echo 2 >> e; c t4\n"
         "git rebase --onto main HEAD~",
         "rebase"},
        {"git rm -q a; mkdir a; echo k > a/k; c t4; git rebase --onto main HEAD~", "rebase"},
        {"git rm -rq n; echo k > n; echo B > b; c t4; b main; echo m > b; c m2; b topic\n"
         "git rebase --onto main HEAD~",
         "rebase"}, // a folder became a file
        {"GIT_SEQUENCE_EDITOR='sed -i 1s/pick/edit/' git rebase -i main~; echo 3 > new", "rebase"},
        {"GIT_SEQUENCE_EDITOR='sed -i 2,3s/pick/squash/' git rebase -i --onto main main~\n"
         "echo t > a; git add a; git rebase --continue",
         "rebase"},
        {"b -b side topic~; echo s > a; echo s > s; c s1; b topic; echo t4 > a; c t4\n"
         "git merge side; echo both > a; c merged; git rebase -r --force-rebase topic~4",
         "rebase"},
        {"git format-patch -qo ../p main..topic; b main; git am -3 ../p/*", "am"},
        {"b main; git cherry-pick main..topic", "cherry-pick"},
        {"git rm -rq new t; c t4; echo k > b; c t5; git revert --no-edit HEAD~3 HEAD~4", "revert"},
        {"git merge main", "merge"},
    };
    for (const auto& one : cases) {
        Copy copy({}, std::string(start) + "{ " + one.script + "; } >../said 2>&1 || :");
        const std::string stopped = copy.sh("git status --porcelain | head -1");
        EXPECT_NE(stopped, "") << one.script << copy.sh("cat ../said");
        copy.sh("cp -a . ../hard; git -C ../hard reset -q --hard");
        EXPECT_NO_THROW(discard(copy)) << one.script;
        auto turn = &one - cases;
        for (const char* how : {"--abort", "--skip", "--continue"}) {
            if (turn++ % 3 != 0 && !test::isLong)
                continue;
            const auto after = [&](const std::string& folder) {
                return copy.sh("rm -rf ../try; cp -a " + folder + " ../try; cd ../try\n" +
                               "GIT_EDITOR=true git " + one.command + " " + how +
                               " >/dev/null 2>&1 || echo failed; git log --format='%s %T'\n"
                               "git status --porcelain --branch; ls .git | grep -v -e EDITMSG -e "
                               "quendo; cat .git/sequencer/todo .git/rebase-*/*todo 2>&1 || :");
            };
            EXPECT_EQ(after("."), after("../hard")) << how << ": " << one.script;
        }
    }
}

} // namespace
} // namespace quendo::git
