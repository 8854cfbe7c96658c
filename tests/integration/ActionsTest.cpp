#include "tests/integration/Scenarios.h"
#include "tests/support/States.h"

#include <boost/algorithm/string/join.hpp>

namespace quendo::test {
namespace {

/// What git says but of ignored files, and makes sure that the program says the same of all.
std::string status(const GitSandbox& sandbox) {
    auto records = recordsOfGit(sandbox);
    EXPECT_EQ(recordsOfQuendo(sandbox), records);
    std::erase_if(records, [](const auto& record) { return record.starts_with("!!"); });
    return boost::algorithm::join(records, "|");
}

/// One to a line: what is there beside the files a, b, d/e and d/f, which are checked in; the
/// command; the line that it prints; the state after it.
constexpr std::string_view effects = R"sh(
w n|q add n|added 1 file|A. n
w d/n; w d/g/m; w d/x.o; w .git/info/exclude '*.o'|q add d a|added 2 files|A. d/g/m|A. d/n
git rm -q a; git rm -q --cached b d/e|q add a b d|added 3 files|
ln -s d l; w n|cd d; q add ../l ../n|added 2 files|A. l|A. n
mkdir g|q add a g|nothing to add|
w n; git add n; rm b|q remove a n b d|removed 5 files; 1 stays on disk, untracked|?? n|D. a|D. b|D. d/e|D. d/f
git rm -q --cached a|q remove a|nothing to remove|?? a|D. a
true|q move a d|moved a to d/a|A. d/a|D. a
ln -s d l; git add l|q move l d/|moved l to d/l|A. d/l
w n|cd d; q move . ../g/h|moved . to ../g/h|?? n|A. g/h/e|A. g/h/f|D. d/e|D. d/f
mv a n|q move a n|moved a to n|A. n|D. a
w a 2; git add a; w a 3; rm b; w n; git add n; git rm -q d/e; w u|q revert a b n d a|reverted 4 files|?? n|?? u
git rm -qr d|q revert d|reverted 2 files|
w a 2; w b 2|q revert a|reverted 1 file|.M b
w u|q revert .|nothing to revert|?? u
w a 2; git add a; rm d/e; w u|cd d; q discard|discarded the changes of 2 files in $WORK|?? u
w a 2|cd /; q discard "$OLDPWD/a"|discarded the changes of 1 file in $WORK|
w u|q discard|nothing to discard in $WORK|?? u
stages a 1 2 3; w a 2; stages b 1 3; rm b|q resolve a b|resolved 2 files|D. b|M. a
w a 2; w b 2; git add b; w n; w u|q checkin -m m a n|checked in 2 files as $HEAD|?? u|M. b
w a 2; rm d/e; git rm -q d/f; w d/u|echo m | q checkin -F - d|checked in 2 files as $HEAD|.M a|?? d/u
w a 2; w ../m m|q checkin --file ../m .|checked in 1 file as $HEAD|
w a 2|q checkin --message=m a a d|checked in 1 file as $HEAD|
chmod 444 a; chmod 644 b|q lock a b a && [ $(stat -c %a a) = 644 ]|made 2 files ready for change|
w n; w e/m; w e/o; printf /x >.gitignore; git add .gitignore|q ignore e n n|ignored 2 paths|AM .gitignore
w n; w x; w .git/info/exclude x|cd d; q ignore ../n ../x; rm ../.gitignore|ignored 1 path|?? n
w .git/info/exclude x; w x|q ignore x|nothing to ignore|
sub s; c; git -C s commit -q --allow-empty -m 2|q checkin -m m s|checked in 1 file as $HEAD|
sub s; c; w s/f 2; w a 2|q revert . 's'|reverted 1 file|.M s
sub s; c; w s/f 2; w a 2|q checkin -m m . s|checked in 1 file as $HEAD|.M s
sub s; c; w s/f 2|cd s; q revert .|reverted 1 file|
)sh";

TEST(Actions, DoWhatTheySayInOneLine) {
    std::istringstream lines{std::string(effects.substr(1))};
    for (std::string line; std::getline(lines, line);) {
        SCOPED_TRACE(line);
        // A pipe within a command has blanks around it.
        std::vector<std::string> parts{""};
        for (std::size_t at = 0; at < line.size(); ++at)
            if (line[at] == '|' && parts.size() < 4 && line[at + 1] != ' ')
                parts.emplace_back();
            else
                parts.back() += line[at];
        const GitSandbox sandbox;
        runScript(sandbox, "i; w a; w b; w d/e; w d/f; c base; " + parts[0]);
        const auto done = shell(sandbox, parts[1]);
        EXPECT_EQ(done.exitCode, 0);
        EXPECT_EQ(done.errors, "");
        const auto expand = [&](const std::string& name, const std::string& value) {
            if (const auto at = parts[2].find(name); at != std::string::npos)
                parts[2].replace(at, name.size(), value);
        };
        expand("$WORK", sandbox.work().native());
        if (parts[2].find("$HEAD") != std::string::npos) {
            expand("$HEAD", sandbox.git({"rev-parse", "HEAD"}).substr(0, 10));
            EXPECT_EQ(sandbox.git({"log", "-1", "--format=%B"}), "m\n\n");
        }
        EXPECT_EQ(done.output, parts[2] + "\n");
        EXPECT_EQ(status(sandbox), parts[3]);
    }
}

TEST(Actions, DryRunNamesEverythingAndChangesNothing) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; for f in a b $'n\\nl' d/e d/f g; do w \"$f\"; done; c; w a 2; rm b; w n;"
                       "git add n; w u; git rm -q d/e; w $'n\\nl' 2; git rm -q --cached g; sub s;"
                       "git commit -qm s s .gitmodules; git -C s commit -q --allow-empty -m 2");
    const auto before = status(sandbox);
    const std::string changed = "../a\n../b\ne\n../g\n../n\n$'../n\\nl'\n";
    for (const auto& [arguments, names] : std::vector<std::pair<std::string, std::string>>{
             {"revert ..", changed},
             {"revert e ../b", "../b\ne\n"},
             {"discard", changed},
             {"remove ../a f ../n . ../a", "../a\nf\n../n\n"},
             {"revert f", ""}}) {
        const auto result = shell(sandbox, "cd d; q " + arguments + " --dry-run");
        EXPECT_EQ(result.errors, "") << arguments;
        EXPECT_EQ(result.output, names) << arguments;
    }
    EXPECT_EQ(status(sandbox), before);
    EXPECT_EQ(shell(sandbox, "q discard").output.substr(0, 34),
              "discarded the changes of 6 files i");
}

TEST(Actions, RefuseInOneLineAndLeaveEverything) {
    const GitSandbox sandbox;
    runScript(sandbox,
              "i; w .gitignore 'x*'; w a; w b; w d/e; sub s; sub s2; c; i nest; w s2/f 2; git init "
              "-q ../other;"
              "w ../other/f; mkdir ../plain; w ../plain/f; w u; w x; w xd/f; w ud/f; w b 2;"
              "w c '<<<<<<< 1\n=======\n>>>>>>> 2\n'; stages c 1 2 3; w n; git add n; w "
              "../bad $'\\xff'; w n 2; w a 2; git add a; w a 3; w d/e 2; git add d/e; rm d/e");
    const auto before = status(sandbox);
    expectRefusals(
        sandbox,
        {
            {"q add u gone", "gone does not exist"},
            {"q add u ''", "an empty path"},
            {"q add u x", "x is ignored"},
            {"q add u xd", "xd is ignored"},
            {"q add u xd/f", "xd/f is ignored"},
            {"q add c", "c is in conflict"},
            {"q add s", "s belongs to a working copy of its own"},
            {"q add u ../other/f", "u and ../other/f belong to different working copies"},
            {"q add ../plain/f", "../plain/f is not in a working copy"},
            {"q add .git/config", "belongs to the metadata"},
            {"q remove a u", "u is not under source control"},
            {"q remove a x", "x is not under source control"},
            {"q remove a ud", "ud is not under source control"},
            {"q remove a s", "s is a working copy of its own"},
            {"q remove a s2", "s2 is a working copy of its own"},
            {"q remove a nest", "nest is a working copy of its own"},
            {"q remove --dry-run a gone", "gone does not exist"},
            {"q move a a", "a cannot be moved to itself"},
            {"q move a gone/", "gone/ is not a folder"},
            {"q move a ../plain/g", "../plain/g is not in a working copy"},
            {"q move gone g", "not under source control"},
            {"q move u g", "not under source control"},
            {"q revert b u", "u is not under source control"},
            {"q revert b gone", "gone does not exist"},
            {"q revert b s", "s; work on them there"},
            {"q discard ../plain", "../plain is not in a working copy"},
            {"q resolve c", "c still holds conflict markers"},
            {"q resolve c a", "a is not in conflict"},
            {"q resolve d", "d is a folder"},
            {"q checkin -m '' b", "needs a message"},
            {"q checkin -m $'\\xff' b", "not text in UTF-8"},
            {"q checkin -F ../bad b", "not text in UTF-8"},
            {"q checkin -F ../gone b", "cannot read the message from ../gone: No such file"},
            {"q checkin -F d b", "cannot read the message from d: Is a directory"},
            {"q checkin -m m c", "in conflict"},
            {"q checkin -m m b x", "ignored"},
            {"q checkin -m m ud", "ud holds nothing that is under source control"},
            {"q checkin -m m b gone", "gone does not exist"},
            {"q checkin -m m b n a", "the staged content differs from the disk: a; "},
            {"q checkin -m m d", "the staged content differs from the disk: d/e; "},
            {"q lock u", "u is not under source control"},
            {"q lock d", "d is a folder"},
        });
    EXPECT_EQ(status(sandbox), before);
    EXPECT_EQ(sandbox.git({"rev-list", "--count", "HEAD"}), "1\n");
}

TEST(Actions, CheckinTellsWhichStagedContentItReplaces) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w a; w b; c; w a 2; git add a; w a 3; w b 2; git add b; rm b; w n; git "
                       "add n; w n 2; w .git/hooks/pre-commit '#!/bin/sh\ncp ../err ../before';"
                       "chmod +x .git/hooks/*");
    const auto done = shell(sandbox, "q checkin --replace-staged -m m . 2> ../err; cat ../before");
    EXPECT_THAT(done.output, testing::HasSubstr(
                                 "quendo: committing as on disk, in place of what is staged: a, b\n"
                                 "quendo: committing as on disk, changed since added: n\n"));
    EXPECT_EQ(sandbox.git({"grep", "^", "HEAD"}), "HEAD:a:3\nHEAD:n:2\n");
}

TEST(Actions, TakeNamesAsTheyAre) {
    const GitSandbox sandbox;
    const std::string names =
        R"('a b' $'n\nl' -dash :colon '*' '[x,y]' $'\xff' '{}' '%%' ':(top)')";
    const auto run = [&](const std::string& script, const std::string& output) {
        const auto result = shell(sandbox, "set -- " + names + "\n" + script);
        EXPECT_EQ(result.output, output) << script << result.errors;
        return status(sandbox);
    };
    const std::string mine = "git rev-parse --short=10 HEAD";
    runScript(sandbox, "i; w x; w y; w z; c; w x 2; w y 2; w z 2");
    const auto others = status(sandbox);
    run("for f; do echo 1 > \"./$f\"; done; q add -- \"$@\"", "added 10 files\n");
    run("q checkin -m one -- \"$@\" | sed 's/ as .*//'", "checked in 10 files\n");
    EXPECT_EQ(status(sandbox), others);
    run("for f; do echo 2 > \"./$f\"; done; q revert --dry-run -- \"$@\"",
        "%%\n*\n-dash\n:(top)\n:colon\n[x,y]\na b\n$'n\\nl'\n{}\n$'\\xff'\n");
    EXPECT_EQ(run("q revert -- \"$@\"", "reverted 10 files\n"), others);
    run("for f; do q move -- \"$f\" \"d/$f\" > ../out || exit; done; cat ../out; q revert .| tail "
        "-c1; cd d; "
        "for f; do [ -e \"./$f\" ] || echo \"no $f\"; done",
        "moved :(top) to d/:(top)\n\n");
    EXPECT_THAT(status(sandbox), testing::HasSubstr("?? d/[x,y]"));
    run("q remove -- \"$@\" && q checkin -m two -- \"$@\" | sed 's/ as .*//'",
        "removed 10 files\nchecked in 10 files\n");
}

TEST(Actions, InterruptedCheckinEndsItsGitAndChangesNothing) {
    const GitSandbox sandbox;
    // The FIFO is open for as long as the hook or its child lives.
    runScript(sandbox, "i; w a; c; w a 2; mkfifo ../alive; w .git/hooks/pre-commit '#!/bin/sh\n"
                       "exec 9> ../alive; sleep 1000 & echo >&9; wait'; chmod +x .git/hooks/*");
    const auto result = shell(sandbox, R"sh(
        set -m; "$0" checkin -m m a & exec 8< ../alive; read -r started <&8; kill -INT $!; wait $!
        code=$?; timeout 20 cat <&8 && exit $code)sh");
    EXPECT_EQ(result.exitCode, 130) << result.errors;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(status(sandbox), ".M a");
    EXPECT_EQ(sandbox.git({"rev-list", "--count", "HEAD"}), "1\n");
}

TEST(Actions, EightAtOnceEachDoTheirPartOrSayWhyNot) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w a; c");
    const auto result = shell(sandbox, R"sh(
        work() {
            for round in 1 2 3; do
                echo $round > f$1; q add f$1 && q checkin -m "f$1" f$1 || continue
                echo x > f$1; q revert f$1 && [ $(< f$1) = $round ]
            done
        }
        for k in 1 2 3 4 5 6 7 8; do work $k > ../out$k 2> ../err$k & done; wait
        cat ../out? | grep -c '^checked in 1 file'; git log --grep '^f' --oneline | wc -l
        for k in 1 2 3 4 5 6 7 8; do git log --grep "^f$k" --name-only --format=%b; done | sort -u |
            tr -d '\n'; echo; cat ../err? | grep -v '\.lock'; ls -A .git/quendo
        git fsck --strict --no-dangling)sh"); // a commit that another was faster than stays behind
    std::istringstream told(result.output);
    int succeeded = 0, commits = 0;
    std::string files;
    told >> succeeded >> commits >> files;
    EXPECT_EQ(succeeded, commits) << result.errors;
    EXPECT_GT(commits, 0);
    EXPECT_LE(commits, 24);
    EXPECT_EQ(result.output,
              std::to_string(commits) + "\n" + std::to_string(commits) + "\n" + files + "\n")
        << "what went wrong is not told";
    EXPECT_TRUE(commits < 24 || files == "f1f2f3f4f5f6f7f8") << files;
    std::cout << commits << " of 24 check-ins succeeded" << std::endl;
}

} // namespace
} // namespace quendo::test
