#include "tests/git/Copy.h"

namespace quendo::git {
namespace {

const Names hardNames = {
    " a b ", "'q'", "\"q\"",     "n\nl", "t\tt", "-r",        "--",      ":",          ":(glob)*",
    ":!x",   "*",   "[ab]?",     "~",    "~ada", "\xFF\xC3x", "back\\",  "$(touch y)", "#h",
    "!i",    "a:b", "e\xCC\x81", "HEAD", "%s%n", "..x",       "\x01\x7F"};

std::string nulSeparated(const Names& names) {
    std::string text;
    for (const auto& name : names)
        text.append(name).push_back('\0');
    return text;
}

TEST(NamesTest, EachOperationTakesEachNameForItself) {
    Names names = hardNames, moved;
    names.push_back(std::string(255, 'w'));
    std::ranges::sort(names);
    for (const auto& name : names)
        moved.push_back("m/" + name);
    Copy copy({}, "git init -q; git commit -q --allow-empty -m start");
    const auto write = [&](const Names& files, const std::string& content) {
        for (const auto& file : files)
            test::writeFile(copy.folder() / file, content);
    };
    const auto git = [&](const Names& arguments) { return copy.sandbox().git(arguments); };
    // A name taken for a pattern, or for a way to find files, would hit these.
    const Names others = {"a", "b1", "x", "ada", "m/a"};
    write(names, "1");
    write(others, "1");
    add(names)(copy);
    EXPECT_EQ(git({"ls-files", "-z"}), nulSeparated(names));
    git({"rm", "-q", "-r", "--cached", "."});
    checkin(names)(copy);
    EXPECT_EQ(git({"ls-tree", "-r", "-z", "--name-only", "HEAD"}), nulSeparated(names));
    git({"add", "."});
    git({"commit", "-q", "-m", "others"});

    write(names, "22");
    write(others, "22");
    revert(names)(copy);
    EXPECT_EQ(copy.status(), " M a\n M ada\n M b1\n M m/a\n M x\n");
    write(names, "22");
    git({"add", "."});
    git({"reset", "-q", "--", "a"});
    revert(names)(copy);
    EXPECT_EQ(copy.status(), " M a\nM  ada\nM  b1\nM  m/a\nM  x\n");
    checkin(others)(copy);

    for (std::size_t i = 0; i < names.size(); ++i)
        move(names[i], moved[i])(copy);
    EXPECT_EQ(git({"diff", "--cached", "--no-renames", "--diff-filter=A", "--name-only", "-z"}),
              nulSeparated(moved));
    git({"commit", "-q", "-m", "moved"});

    git({"checkout", "-q", "-b", "side"});
    write(moved, "333");
    git({"commit", "-q", "-a", "-m", "side"});
    git({"checkout", "-q", "main"});
    write(moved, "4444");
    git({"commit", "-q", "-a", "-m", "main"});
    EXPECT_EQ(copy.sandbox().tryGit({"merge", "-q", "side"}).exitCode, 1);
    write(moved, "55555");
    for (const auto& name : moved)
        resolve(name)(copy);
    EXPECT_EQ(git({"ls-files", "-u"}), "");
    checkin(moved)(copy);
    EXPECT_EQ(git({"log", "-1", "--format=%P"}).size(), 2U * 40 + 2);

    remove(moved)(copy);
    EXPECT_EQ(git({"ls-files", "-z"}), nulSeparated({"a", "ada", "b1", "m/a", "x"}));
    checkin(moved)(copy);
    write(names, "1");
    for (const auto& name : names)
        if (name.find('\n') == std::string::npos)
            ignore(name)(copy);
    EXPECT_EQ(git({"status", "--porcelain", "-z", "--no-renames"}),
              nulSeparated({"?? .gitignore", "?? n\nl"}));
    copy.sh("test ! -e y; git fsck --strict 2>&1; test -z \"$(ls .git/quendo)\"");
}

TEST(NamesTest, PathsNearlyAsLongAsTheSystemTakes) {
    std::string path;
    for (int i = 0; i < 15; ++i)
        path += std::string(255, 'd') + "/";
    path += std::string(100, 'e') + "/" + std::string(50, 'f');
    Copy copy;
    const std::string enter =
        "d=$(printf %255s '' | tr ' ' d); for i in 1 2 3 4 5 6 7 8 9 10 11 12 "
        "13 14 15; do mkdir -p $d; cd -P $d; done; e=$(printf %100s '' | tr "
        "' ' e); f=$(printf %50s '' | tr ' ' f); mkdir -p $e; cd -P $e; ";
    copy.sh(enter + "echo 1 > $f");
    add({path})(copy);
    checkin({path})(copy);
    copy.sh(enter + "echo 22 > $f");
    revert({path})(copy);
    copy.sh(enter + "grep -qx 1 $f");
    move(path, path + "g")(copy);
    checkin({path, path + "g"})(copy);
    EXPECT_EQ(copy.sh("git ls-files | grep dd"), path + "g\n");
    remove({path + "g"})(copy);
    copy.sh("test ! -e $(printf %255s '' | tr ' ' d)");
    checkin({path + "g"})(copy);
    EXPECT_EQ(copy.status(), "");
}

// As many as somebody who reformats a whole project has.
TEST(NamesTest, ManyFilesInOneCall) {
    const int folders = test::isLong ? 50 : 2, each = 1000;
    Names names;
    for (int i = 0; i < folders; ++i)
        for (int j = 0; j < each; ++j)
            names.push_back("d" + std::to_string(i) + "/sub/file" + std::to_string(j));
    Copy copy;
    const auto count = std::to_string(names.size());
    const auto write = [&](const std::string& content) {
        for (const auto& name : names)
            test::writeFile(copy.folder() / name, content + name);
    };
    write("1");
    add(names)(copy);
    EXPECT_EQ(copy.sh("git diff --cached --name-only | wc -l"), count + "\n");
    checkin(names)(copy);
    write("22");
    copy.sh("echo 2 > a");
    checkin(names)(copy);
    EXPECT_EQ(copy.status(), " M a\n");
    write("333");
    add(names)(copy);
    write("4444");
    revert(names)(copy);
    EXPECT_EQ(copy.status(), " M a\n");
    EXPECT_EQ(test::readFile(copy.folder() / names[0]), "22" + names[0]);
    remove(names)(copy);
    EXPECT_EQ(copy.sh("git diff --cached --name-only --diff-filter=D | wc -l"), count + "\n");
    copy.sh("test ! -e d0");
    revert(names)(copy);
    EXPECT_EQ(copy.status(), " M a\n");
}

// Where a repository lies and how it keeps its index makes no difference.
TEST(NamesTest, PlacesAndIndexesOfAllKinds) {
    struct Place {
        std::string make, folder;
    };
    const std::string usual = Copy::usual;
    const std::string two = "git update-index --split-index; git config core.splitIndex true; ";
    const Place places[] = {
        {usual + "\ngit config core.worktree ../../elsewhere; mv ../work ../w; mkdir ../work "
                 "../elsewhere; mv ../w/.git ../work; cp -r ../w/* ../w/.gitignore ../elsewhere",
         "../elsewhere"},
        {usual + "\ngit worktree add -q ../linked", "../linked"},
        {"mkdir ../s; (cd ../s; " + usual +
             ")\ngit init -q; git submodule --quiet add ../s sub; git commit -qm sub",
         "sub"},
        {"git init -q --object-format=sha256; for f in a b c d; do echo $f > $f; done; mkdir n; "
         "echo x > n/x; echo y > n/y; echo '*.o' > .gitignore; git add .; git commit -qm start",
         ""},
        {usual + "\n" + two, ""},
        {usual + "\ngit config core.precomposeunicode true; git config index.version 4\n"
                 "git config core.untrackedCache true; git config core.ignoreStat false",
         ""},
    };
    for (const auto& place : places) {
        Copy copy({}, place.make, place.folder);
        const auto git = place.folder == "../elsewhere" ? "git -C ../work" : "git";
        const auto status = [&] {
            return copy.sh(std::string(git) + " status --porcelain -uall --no-renames");
        };
        copy.sh("echo 2 > a; echo 2 > b; rm c; echo n > new; echo 2 > d");
        add({"new", "d"})(copy);
        EXPECT_EQ(status(), " M a\n M b\n D c\nM  d\nA  new\n") << place.make;
        checkin({"a", "c", "new"})(copy);
        EXPECT_EQ(status(), " M b\nM  d\n") << place.make;
        revert({"b"})(copy);
        move("n", "m")(copy);
        remove({"a"})(copy);
        EXPECT_EQ(status(), "D  a\nM  d\nA  m/x\nA  m/y\nD  n/x\nD  n/y\n") << place.make;
        copy.sh("echo 3 > m/x; touch ign");
        ignore("ign")(copy);
        discard(copy);
        EXPECT_EQ(status(), "?? ign\n?? m/x\n?? m/y\n") << place.make;
        copy.sh("test -e a -a -e n/x; grep -qx d d; grep -qx 3 m/x");
        copy.sh(std::string(git) + " fsck --strict 2>&1");
    }
}

TEST(NamesTest, BeforeTheFirstCommitAndInASparseCopy) {
    const std::string empty = "git init -q; echo 1 > a; echo 1 > b; mkdir n; echo 1 > n/x; ";
    {
        Copy copy({}, empty + "git add a b");
        revert({"a"})(copy);
        EXPECT_EQ(copy.status(), "A  b\n?? a\n?? n/x\n");
        EXPECT_NE(copy.refusal(remove({"b"})), "");
        checkin({"a", "n/x"})(copy);
        EXPECT_EQ(copy.status(), "A  b\n");
        checkin({"b"})(copy);
        EXPECT_EQ(copy.sh("git log --oneline | wc -l"), "2\n");
    }
    {
        Copy copy({}, empty +
                          "git add a b; printf '#!/bin/sh\\nexit 1\\n' > .git/hooks/pre-commit\n"
                          "chmod +x .git/hooks/pre-commit");
        const auto before = copy.status();
        EXPECT_THROW(checkin({"a", "n/x"})(copy), exception::OperationFailedError);
        EXPECT_EQ(copy.status(), before);
        discard(copy);
        EXPECT_EQ(copy.status(), "?? a\n?? b\n?? n/x\n");
    }
    {
        Copy copy;
        copy.sh("echo 1 > i; git add -N i; echo 1 > j; git add -N j");
        checkin({"i"})(copy);
        EXPECT_EQ(copy.status(), " A j\n");
        revert({"j"})(copy);
        EXPECT_EQ(copy.status(), "?? j\n");
    }
    {
        Copy copy;
        copy.sh("git sparse-checkout init --cone 2>&1; test ! -e n; echo 2 > a; echo 2 > b");
        checkin({"a"})(copy);
        revert({"b"})(copy);
        move("c", "e")(copy);
        remove({"d"})(copy);
        EXPECT_EQ(copy.status(), "D  c\nD  d\nA  e\n");
        discard(copy);
        EXPECT_EQ(copy.status(), "?? e\n");
        copy.sh("test ! -e n -a -e c; git cat-file -e HEAD:n/x; git ls-files -t n | grep -q '^S'");
    }
}

} // namespace
} // namespace quendo::git
