#include "tests/integration/Scenarios.h"

namespace quendo::test {
namespace {

/// One to a line: what is bad, the path asked about (below work() unless empty), the script. With
/// an asterisk before the path git itself does not mind, and its answer is right as well.
constexpr std::string_view badOnes = R"sh(
does not exist|gone|i; w f; c
is no working copy|.|true
is the metadata folder|.git|i; w f; c
is a bare repository|.|i --bare
is unreadable|.|i; w d/f; c; chmod 000 .
lies below what is unreadable|d|mkdir d; cd d; i; w f; c; cd ..; chmod 000 d
is empty||i; w f; c
index cut to its head|.|i; w f; c; truncate -s 9 .git/index
index with a wrong sum|*.|i; w f; c; printf x | dd of=.git/index bs=1 seek=40 conv=notrunc status=none
index without the end of its sum|*.|i; w f; c; truncate -s -7 .git/index
index of garbage|.|i; w f; c; head -c 900 "$(command -v git)" > .git/index
index is a folder|.|i; w f; c; rm .git/index; mkdir .git/index
index unreadable|.|i; w f; c; chmod 000 .git/index
index's link is cut|.|i; w f; c; cd .git; head -c-20 index >x; printf 'link\0\0\0\1x%20s' >>x; mv x index
HEAD of garbage|.|i; w f; c; echo garbage > .git/HEAD
HEAD gone|.|i; w f; c; rm .git/HEAD
HEAD names what is not there|.|i; w f; c; git rev-parse HEAD | tr 0-9a-f a-f0-9 > .git/HEAD
HEAD's ref of garbage|*.|i; w f; c; echo garbage > .git/refs/heads/main
config of garbage|.|i; w f; c; echo '[core' >> .git/config
config with a bad value|.|i; w f; c; git config core.fileMode perhaps
config unreadable|.|i; w f; c; chmod 000 .git/config
objects gone|.|i; w f; c; rm -r .git/objects
commit damaged|.|i; w f; c; h=$(git rev-parse HEAD); cd .git/objects/${h:0:2}; rm ${h:2}; w ${h:2}
a newer format|.|i; w f; c; v 2
an unknown extension|.|i; w f; c; v 1; git config extensions.fancy yes
an unknown object format|.|i; w f; c; v 1; git config extensions.objectFormat x
.git names what is not there|.|w .git 'gitdir: gone'
.git is garbage|.|w .git garbage
.git is empty|.|mkdir .git; w f
a damaged one within a good one|d|i; w f; c; git init -q d; : > d/.git/HEAD; w d/f
below a damaged one within a good one|d/e|i; w f; c; git init -q d; rm d/.git/HEAD; w d/e/f
)sh";

TEST(BadInput, OneLineAndExitOne) {
    std::istringstream lines{std::string(badOnes.substr(1)) + "is not valid text|\xff\xfe|true\n"};
    std::string name, at, script;
    while (std::getline(lines, name, '|') && std::getline(lines, at, '|') &&
           std::getline(lines, script)) {
        SCOPED_TRACE(name);
        const GitSandbox sandbox;
        runScript(sandbox, "v() { git config core.repositoryFormatVersion $1; }\n" + script);
        const bool orAsGit = at.starts_with('*');
        const auto path = at.empty() ? "" : (sandbox.work() / at.substr(orAsGit ? 1 : 0)).native();
        const auto text = runQuendo(sandbox, {"status", "--porcelain", path});
        const auto json = runQuendo(sandbox, {"status", "--json", "--all", path});
        for (const auto& result : {text, json}) {
            EXPECT_TRUE((orAsGit && result.exitCode == 0) || notRefused(result).empty())
                << notRefused(result);
        }
        if (text.exitCode == 0) {
            EXPECT_EQ(text.output.empty(), sandbox.git({"status", "--porcelain"}).empty());
        }
        fs::permissions(sandbox.work(), fs::perms::owner_all);
    }
}

TEST(BadInput, InheritedVariablesChangeNothing) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w f; c; w f 2; w n; git init -q ../other; w ../exclude n");
    const std::string variables = R"sh(GIT_DIR=$other/.git
GIT_INDEX_FILE=$other/.git/index
GIT_DIR=$other/.git GIT_WORK_TREE=$other
GIT_WORK_TREE=$other
GIT_OBJECT_DIRECTORY=$other GIT_COMMON_DIR=$other GIT_NAMESPACE=x
GIT_CEILING_DIRECTORIES=$PWD/work GIT_PREFIX=x/
GIT_CONFIG_COUNT=1 GIT_CONFIG_KEY_0=core.excludesFile GIT_CONFIG_VALUE_0=$PWD/exclude
GIT_CONFIG_PARAMETERS="'status.showUntrackedFiles'='no'"
GIT_GLOB_PATHSPECS=1 GIT_ICASE_PATHSPECS=1 GIT_TRACE=1
GIT_TRACE2=1 GIT_TRACE_SETUP=2 GIT_PAGER=false
LC_ALL=de_DE.UTF-8 LANGUAGE=de COLUMNS=5)sh";
    std::istringstream lines(variables);
    for (std::string line; std::getline(lines, line);) {
        const auto result = sandbox.run(
            {"sh", "-c", "other=$PWD/other; " + line + " exec \"$0\" status --porcelain work",
             QUENDO_PROGRAM},
            sandbox.root());
        EXPECT_EQ(result.exitCode, 0) << line;
        EXPECT_EQ(result.output, ".M\tf\n??\tn\n") << line;
        EXPECT_EQ(result.errors, "") << line;
    }
}

TEST(BadInput, AGitThatIsNotOne) {
    const std::string version = "case $* in *version*) exec $REAL --version;; esac; ";
    const std::vector<std::pair<std::string, std::string>> fakes = {
        {"too old",
         "case $* in *version*) echo git version 2.10.0; exit;; esac; exec $REAL \"$@\""},
        {"hanging with children", "sleep 1000 & sleep 1000"},
        {"printing garbage after its version",
         version + "printf '\\377\\0\\001 garbage\\nmore\\0'"},
        {"printing garbage without end", version + "exec cat /dev/zero"},
        {"complaining at length", version + "printf 'fatal: a\\nb\\nc\\n' >&2; exit 128"},
        {"failing silently", version + "exit 3"},
        {"killed in the midst of a true answer",
         version + "case $* in *status*|*ls-files*|*diff*) $REAL \"$@\" | head -c 3; kill -9 $$;; "
                   "esac; exec $REAL \"$@\""},
        {"no program", "exit 127"},
    };
    // Side by side, because some are waited for.
    std::vector<std::future<std::string>> answers;
    for (const auto& fake : fakes)
        answers.push_back(std::async(std::launch::async, [&script = fake.second] {
            const GitSandbox sandbox;
            runScript(sandbox, "i; w f; c; w f 2; w n");
            return notRefused(
                runQuendo(sandbox, {"status", "--porcelain", "work"}, withGit(sandbox, script)));
        }));
    for (std::size_t row = 0; row < fakes.size(); ++row)
        EXPECT_EQ(answers[row].get(), "") << fakes[row].first;
    const GitSandbox sandbox;
    runScript(sandbox, "i; w f; c");
    for (const auto* path : {"/nowhere", ""})
        EXPECT_EQ(notRefused(runQuendo(sandbox, {"status", "work"}, {{"PATH", path}})), "") << path;
}

// What is wrong is said, not what it looks like at first.
TEST(BadInput, NamesTheRealCause) {
    const std::string real = "[ \"$1\" = version ] && exec $REAL \"$@\"; ";
    // What git is, what is done, what must be said.
    const std::vector<std::array<std::string, 3>> rows = {
        {"", "echo '[core' >> ~/.gitconfig; q status", "/.gitconfig; correct that file"},
        {"", "rm ~/.gitconfig; mkfifo ~/.gitconfig; q status", "/.gitconfig is a FIFO"},
        {"", "truncate -s 130 .git/index; q status", "a name that no file can have"},
        {"", "printf '\\0\\0' | dd of=.git/index bs=1 seek=38 conv=notrunc status=none; q status",
         "ce_mode: 0; if nothing else helps, move the file 'index'"},
        {"", "chmod 500 .git; q checkin -m m f; e=$?; chmod 700 .git; exit $e",
         "/.git cannot be written to: Permission denied"},
#ifndef __SANITIZE_ADDRESS__ // the sanitizer of undefined behaviour needs files for its own checks
        {"", "ulimit -n 10; q status", "too many files open (ulimit -n)"},
#endif
        {"exit 255", "q status", "git does not print its version: it exited with code 255"},
        {real + "exit 255", "q status", "git config failed in "},
        {real + "kill -9 $$", "q status", ": it was killed, by another process"},
        {real + "kill -9 $$", "q add n", ": it was killed, by another process"},
        {real + "[ $1 = check-ignore ] && printf 'x\\0y\\0z\\0\\0'; exec $REAL \"$@\"", "q add n",
         "git check-ignore printed what git does not print"},
        {real + "[ $1 = update-index ] && exit 255; exec $REAL \"$@\"", "q add n",
         "git update-index failed in "},
    };
    for (const auto& [git, command, words] : rows) {
        const GitSandbox sandbox;
        runScript(sandbox, "i; w f; w g; c; w f 2; w n");
        if (!git.empty())
            withGit(sandbox, git);
        expectRefusals(sandbox, {{"PATH=$PWD/../bin:$PATH; " + command, words}});
    }
}

} // namespace
} // namespace quendo::test
