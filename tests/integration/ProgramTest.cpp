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
                       {"q status a/file", "a/file is a file; give the folder that holds it"},
                       {"q status a/file/below", "a/file/below does not exist"},
                       {"q status ../plain", "../plain is not in a working copy"},
                       {"q status .git/refs", "belongs to the metadata"},
                       {"q status loop", "cannot read loop: "},
                       {"q status /dev/null", "is not a folder"},
                       {"q status " + std::string(5000, 'x'), "File name too long"},
                       {"q log ../plain/x", "../plain/x is not in a working copy"},
                       {"q log a", "a is a folder"},
                       {"q log never", "never does not exist and has no revisions"},
                       {"q export a/file no-such-revision out", "no-such-revision"},
                       {"q export a/file HEAD a", "exists"},
                   });
    EXPECT_EQ(notRefused(shell("q --nope"), 2), "");
    EXPECT_FALSE(fs::exists(m_sandbox.work() / "out"));
}

TEST_F(Program, TellsWhenItsOutputIsNotTaken) {
    expectRefusals(m_sandbox, {{"touch new; q status > /dev/full", "No space left"},
                               {"q status >&-", "cannot write"},
                               {"q status | true; exit ${PIPESTATUS[0]}", "Broken pipe"}});
    EXPECT_EQ(shell("q status >&- 2>&-").exitCode, 1);
}

TEST_F(Program, ShowsAWorkingCopyFromAnywhereInIt) {
    shell("mkdir a/b; echo changed > a/file; touch a/b/new top; ln -s a/b link");
    EXPECT_EQ(shell("q status --porcelain a").output, "??\ta/b/new\n.M\ta/file\n");
    EXPECT_EQ(shell("q status --porcelain link").output, "??\ta/b/new\n");
    const auto people = shell("q status ./a/../a/b/");
    EXPECT_EQ(people.output, "untracked   a/b/new\n1 untracked in " +
                                 (m_sandbox.work() / "a/b").native() + " (Git)\n");
    EXPECT_EQ(people.errors, "");
    EXPECT_EQ(shell("git init -q a/i; touch a/i/x; q status --porcelain a/i").output, "??\tx\n");
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
    expectRefusals(m_sandbox, {{"q clients . ../plain", "../plain is not in a working copy"}});
}

TEST_F(Program, ListsAndExportsRevisionsOfWhatIsGone) {
    const auto log = shell("rm -r a; q log a/file");
    EXPECT_EQ(std::ranges::count(log.output, '\n'), 2) << log.output << log.errors;
    EXPECT_NE(log.output.find("Ada Tester  message2\n"), std::string::npos) << log.output;
    EXPECT_EQ(shell("q log -n 1 --json a/file | wc -l").output, "1\n");
    const auto exported = shell("q export a/file HEAD~1 old && cat old");
    EXPECT_EQ(exported.output + exported.errors, "1");
}

} // namespace
} // namespace quendo::test
