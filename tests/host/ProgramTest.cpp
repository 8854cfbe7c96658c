#include "tests/support/GitSandbox.h"
#include "tests/support/Testing.h"

namespace quendo::test {
namespace {

class Program : public testing::Test {
protected:
    void SetUp() override {
        shell("git init -q; mkdir a ../plain; for n in 1 2; do echo $n > a/file; git add a; "
              "git commit -qm message$n; done");
    }

    /// What a shell script does in work(); q runs the program.
    ProcessResult shell(const std::string& script) {
        return m_sandbox.run({"bash", "-c", "q() { \"$0\" \"$@\"; }\n" + script, QUENDO_PROGRAM},
                             m_sandbox.work());
    }
    void expectRefusal(const std::string& script, const std::string& words, int code = 1) {
        const auto result = shell(script);
        EXPECT_EQ(notRefused(result, code), "") << script;
        EXPECT_TRUE(result.errors.starts_with("quendo: ")) << result.errors;
        EXPECT_NE(result.errors.find(words), std::string::npos) << result.errors;
    }

    GitSandbox m_sandbox;
};

TEST_F(Program, RefusesInOneLine) {
    shell("ln -s loop loop");
    for (const auto& [arguments, words] : std::vector<std::pair<std::string, const char*>>{
             {"status ''", "an empty path"},
             {"status $'gone\\n\\xff'", "$'gone\\n\\xff' does not exist"},
             {"status a/file", "a/file is a file; give the folder that holds it"},
             {"status a/file/below", "a/file/below does not exist"},
             {"status ../plain", "../plain is not in a working copy"},
             {"status .git/refs", "belongs to the metadata"},
             {"status loop", "cannot read loop: "},
             {"status /dev/null", "is not a folder"},
             {"status " + std::string(5000, 'x'), "File name too long"},
             {"log ../plain/x", "../plain/x is not in a working copy"},
             {"log a", "a is a folder"},
             {"log never", "never does not exist and has no revisions"},
             {"export a/file no-such-revision out", "no-such-revision"},
             {"export a/file HEAD a", "exists"},
         })
        expectRefusal("q " + arguments, words);
    expectRefusal("q --nope", "--help", 2);
    EXPECT_FALSE(fs::exists(m_sandbox.work() / "out"));
}

TEST_F(Program, TellsWhenItsOutputIsNotTaken) {
    expectRefusal("touch new; q status > /dev/full", "No space left");
    expectRefusal("q status >&-", "cannot write");
    expectRefusal("q status | true; exit ${PIPESTATUS[0]}", "Broken pipe");
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
    expectRefusal("q clients . ../plain", "../plain is not in a working copy");
}

TEST_F(Program, ListsAndExportsRevisionsOfWhatIsGone) {
    const auto log = shell("rm -r a; q log a/file");
    EXPECT_EQ(std::ranges::count(log.output, '\n'), 2) << log.output << log.errors;
    EXPECT_NE(log.output.find("Ada Tester  message2\n"), std::string::npos) << log.output;
    EXPECT_EQ(shell("q log -n 1 --json a/file | wc -l").output, "1\n");
    const auto exported = shell("q export a/file HEAD~1 old && cat old");
    EXPECT_EQ(exported.output + exported.errors, "1\n");
}

} // namespace
} // namespace quendo::test
