#include "tests/integration/Scenarios.h"

namespace quendo::test {
namespace {

class Program : public testing::Test {
protected:
    Program() {
        runScript(m_sandbox, "i; mkdir ../plain; w a/file 1; c message1; w a/file 2; c message2");
    }
    ProcessResult shell(const std::string& script) const { return test::shell(m_sandbox, script); }

    GitSandbox m_sandbox;
};

TEST_F(Program, RefusesInOneLine) {
    shell("ln -s loop loop");
    expectRefusals(m_sandbox,
                   {
                       {"q status ''", "an empty path"},
                       {"q status $'gone\\n\\xff'", "$'gone\\n\\xff' does not exist"},
                       {"q status . gone", "gone does not exist"},
                       {"q -C a -C nowhere status", "cannot change to the folder nowhere: No such"},
                       {"git init -q ../other; q status --porcelain . ../other",
                        "../other and . belong to different working copies"},
                       {"q status a/file/below", "a/file/below does not exist"},
                       {"q status ../plain", "../plain is not in a working copy"},
                       {"q status .git/refs", "belongs to the metadata"},
                       {"q status /dev/null", "/dev/null is not in a working copy"},
                       {"q status " + std::string(5000, 'x'), "File name too long"},
                       {"q log ../plain/x", "../plain/x is not in a working copy"},
                       {"q log never", "never does not exist and has no revisions"},
                       {"q export a/file no-such-revision out", "no-such-revision"},
                       {"q export a/file HEAD a", "exists"},
                   });
    EXPECT_EQ(notRefused(shell("q --nope"), 2), "");
    EXPECT_FALSE(fs::exists(m_sandbox.work() / "out"));
}

TEST_F(Program, TellsWhenItsOutputIsNotTaken) {
    expectRefusals(m_sandbox,
                   {{"touch new; q status > /dev/full", "No space left"},
                    {"q status >&-", "cannot write"},
                    // As whoever had the signal ignored wants it.
                    {"trap '' PIPE; q status | true; exit ${PIPESTATUS[0]}", "Broken pipe"}});
    const auto ended =
        shell("env --default-signal=PIPE \"$0\" status | true; exit ${PIPESTATUS[0]}");
    EXPECT_EQ(ended.exitCode, 141);
    EXPECT_EQ(ended.errors, "");
    EXPECT_EQ(shell("q status >&- 2>&-").exitCode, 1);
}

TEST_F(Program, ShowsAWorkingCopyFromAnywhereInIt) {
    shell("mkdir a/b; echo changed > a/file; touch a/b/new top; ln -s a/b link");
    EXPECT_EQ(shell("q status --porcelain a").output, "??\ta/b/new\n.M\ta/file\n");
    EXPECT_EQ(shell("q status --porcelain link").output, "??\ta/b/new\n");
    const auto people = shell("q status ./a/../a/b/");
    EXPECT_EQ(people.output, "untracked   a/b/new\n1 untracked in " +
                                 (m_sandbox.work() / "a/b").native() + " (Git)\non main\n");
    EXPECT_EQ(people.errors, "");
    EXPECT_EQ(shell("git init -q a/i; touch a/i/x; q status --porcelain a/i").output, "??\tx\n");
}

TEST_F(Program, ShowsFilesAndSeveralPaths) {
    shell("mkdir b; w() { echo ${2-} > $1; }; w a/file 3; w b/new; w b/x.o; w g; git add g; rm g;"
          "echo '*.o' > .git/info/exclude; git init -q ../other; w ../other/n");
    const auto work = m_sandbox.work().native(), other = (m_sandbox.root() / "other").native();
    const auto at = [&](const std::string& path) {
        return " in " + work + path + " (Git)\non main\n";
    };
    for (const auto& [arguments, output] : std::vector<std::pair<std::string, std::string>>{
             {"--porcelain b/new g a/file a g", ".M\ta/file\n??\tb/new\nAD\tg\n"},
             {"--porcelain a . ../work/a/file", ".M\ta/file\n??\tb/new\nAD\tg\n"},
             {"a/file", "modified    a/file\n1 modified" + at("/a/file")},
             {"b/x.o", "ignored     b/x.o\n1 ignored" + at("/b/x.o")},
             {"--untracked a/file", "nothing untracked" + at("/a/file")},
             {"a b/x.o a/file",
              "modified    a/file\n1 modified" + at("").replace(0, 4, " in 2 paths of ")},
             {"../other/n g a/file",
              "untracked   " + other + "/n\n1 untracked in " + other +
                  "/n (Git)\non main, before its first commit\n\n"
                  "modified    a/file\nmissing     g\n1 modified, 1 missing" +
                  at("").replace(0, 4, " in 2 paths of ")},
             {"--json a/file a/. ../other | cut -d, -f2-3 | tr -d '\"'",
              "path:n,root:" + other + "\npath:a/file,root:" + work + "\n"}})
        EXPECT_EQ(shell("q status " + arguments).output, output) << arguments;
    EXPECT_EQ(shell("q -C b -C ../a --color always status file | head -1").output,
              "\x1b[33mmodified\x1b[0m    file\n");
}

TEST_F(Program, ShowsTheBranchAndTheOperationInProgress) {
    shell("git checkout -qb topic; c() { echo $1 > a/file; git commit -qam $1; }; c t1; c t2;"
          "git checkout -qB main HEAD~2; c m1; git checkout -q topic; git branch -q -u main");
    const auto lines = [&] {
        return shell("q status | tail -n +2; q status --json --branch").output;
    };
    const auto commit = [&] { return m_sandbox.git({"rev-parse", "HEAD"}).substr(0, 40); };
    EXPECT_EQ(lines(), "on topic, 2 ahead of and 1 behind main\n{\"system\":\"Git\",\"root\":\"" +
                           m_sandbox.work().native() + R"(","branch":"topic","commit":")" +
                           commit() +
                           R"(","upstream":"main","upstream_gone":false,"ahead":2,"behind":1,)"
                           R"("operation":null,"operation_branch":null,"step":null,"steps":null})"
                           "\n");
    shell("git rebase main");
    const std::string rebase =
        "in progress, step 1 of 2: go on with git rebase --continue, or give "
        "it up with git rebase --abort\n";
    const auto rebasing = lines();
    EXPECT_THAT(rebasing, testing::StartsWith("1 conflicted in"));
    EXPECT_THAT(rebasing, testing::HasSubstr("\non no branch, at " + commit().substr(0, 10) +
                                             "\na rebase of topic is " + rebase));
    EXPECT_THAT(rebasing, testing::HasSubstr(R"("operation":"rebase","operation_branch":"topic",)"
                                             R"("step":1,"steps":2})"));
    EXPECT_EQ(shell("q discard").output, "discarded the changes of 1 file in " +
                                             m_sandbox.work().native() +
                                             "; a rebase of topic is still " + rebase);
}

TEST_F(Program, ListsWhatIsUntracked) {
    shell(
        "mkdir -p a/b e; touch a/b/$'n\\nl' a/$'\\xff'; touch t.o; echo '*.o' > .git/info/exclude");
    EXPECT_EQ(shell("q untracked").output, "$'a/b/n\\nl'\n$'a/\\xff'\n");
    EXPECT_EQ(shell("cd a/b; q untracked -z ..").output, std::string("a/b/n\nl\0a/\xff\0", 12));
    EXPECT_EQ(shell("cd /usr; q untracked --json \"$OLDPWD/a\"").output,
              "{\"system\":\"Git\",\"path\":\"a/b/n\\nl\"}\n"
              "{\"system\":\"Git\",\"path\":\"a/\xef\xbf\xbd\",\"path_hex\":\"612fff\"}\n");
    EXPECT_EQ(shell("cd /usr; q untracked \"$OLDPWD/a/b\"").output,
              "$'" + (m_sandbox.work() / "a/b/n\\nl").native() + "'\n");
}

TEST_F(Program, ListsTheClientsOfWorkingCopies) {
    const auto listed = shell("git init -q ../other; q clients . a ../other").output;
    const auto root = [](const auto& path) { return "root: " + path.native() + "\n"; };
    EXPECT_NE(listed.find(root(m_sandbox.work())), listed.npos) << listed;
    EXPECT_NE(listed.find(root(m_sandbox.root() / "other")), listed.npos) << listed;
    EXPECT_NE(listed.find("client: quendo 2\n"), listed.npos) << listed;
    EXPECT_EQ(shell("cd a; q clients | head -1").output, root(m_sandbox.work()));
    expectRefusals(m_sandbox, {{"q clients . ../plain", "../plain is not in a working copy"}});
}

TEST_F(Program, ListsAndExportsRevisions) {
    const auto log = shell("rm -r a; q log a/file");
    EXPECT_EQ(std::ranges::count(log.output, '\n'), 2) << log.output << log.errors;
    EXPECT_NE(log.output.find("Ada Tester  message2\n"), std::string::npos) << log.output;
    EXPECT_EQ(shell("q log -n 1 --json a/file | wc -l").output, "1\n");
    EXPECT_EQ(shell("cd /; q log \"$OLDPWD\" | wc -l").output, "2\n");
    EXPECT_EQ(shell("git init -q ../empty; cd ../empty; q log").output,
              (m_sandbox.root() / "empty has no revisions\n").native());
    const auto exported = shell("q export a/file HEAD~1 old && cat old");
    EXPECT_EQ(exported.output + exported.errors, "1");
    // Everything and nothing else, and nothing stays behind.
    shell("mkdir a ../tmp; head -c 200000 /dev/urandom > a/file; ln -s 'to nowhere' a/link\n"
          "git add a; git commit -qm message3");
    EXPECT_EQ(shell("TMPDIR=$PWD/../tmp; export TMPDIR; q export a/file HEAD - | cmp - a/file\n"
                    "q export a/link HEAD -; ls ../tmp")
                  .output,
              "to nowhere");
    // A reader that does not read holds up no signal.
    EXPECT_EQ(
        shell("mkfifo ../p; exec 8<> ../p; TMPDIR=$PWD/../tmp \"$0\" export a/file HEAD - >&8 &\n"
              "head -c 1 <&8 > ../first; kill -TERM $!; wait $!; echo $?; ls ../tmp")
            .output,
        "143\n");
    EXPECT_EQ(notRefused(shell("q export --json a/file HEAD -"), 2), "");
    expectRefusals(m_sandbox, {{"q export a HEAD - >&2", "a is a folder"},
                               {"q export a/none HEAD -", "does not exist in revision"}});
}

TEST_F(Program, PagesOnATerminalOnly) {
    const auto onTerminal = [&](const std::string& pager, const std::string& options) {
        return shell("git config core.pager 'touch ../canary; cat'; export TERM=xterm; " + pager +
                     " script -qec \"'$0' log " + options +
                     "\" /dev/null </dev/null | tr -d '\\r'\n" +
                     "echo ${PIPESTATUS[0]}; ls .. | grep canary")
            .output;
    };
    EXPECT_THAT(onTerminal("PAGER='sed s/^.*Tester//'", ""), "  message2\n  message1\n0\n");
    EXPECT_THAT(onTerminal("PAGER='sed s/^.*Tester//; false'", "-n 1"), "  message2\n0\n");
    EXPECT_THAT(onTerminal("PAGER='sleep 0'", ""), "0\n"); // it is left at once
    shell("mkdir ../bin; printf '#!/bin/sh\ntouch ../canary\n' > less\n"
          "printf '#!/bin/sh\nsed s/^.*Tester//\n' > ../bin/less; chmod +x less ../bin/less");
    EXPECT_THAT(onTerminal("env -u PAGER PATH=.:$PWD/../bin:$PATH", ""),
                "  message2\n  message1\n0\n");
    for (const char* none : {"PAGER=cat", "PAGER=", "PAGER=false TERM=dumb"})
        EXPECT_THAT(onTerminal(none, ""), HasSubstr("Tester  message1\n0\n")) << none;
    EXPECT_THAT(onTerminal("PAGER=false", "--no-pager"), HasSubstr("Tester  message1\n0\n"));
    EXPECT_THAT(shell("PAGER=false q log").output, HasSubstr("Tester  message1\n"));
}

} // namespace
} // namespace quendo::test
