#include "quendo/adapter/BranchInformation.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/RevisionContent.h"
#include "quendo/adapter/RevisionHistory.h"
#include "tests/git/Copy.h"
#include "tests/support/TreeWatch.h"

namespace quendo::git {
namespace {

constexpr std::size_t enough = 1000;

class SubsystemTest : public testing::Test {
protected:
    template <class Subsystem>
    static Subsystem& of(CMAdapter& adapter) {
        return *std::any_cast<Subsystem*>(adapter.getSubsystem(typeid(Subsystem)));
    }

    /// What a working copy is on, in words.
    std::string branchAt(const std::string& folder) {
        const auto adapter = GitAdapterFactory().createAdapter(copy.at(folder), copy.interactor());
        const auto state = of<BranchInformation>(*adapter).getBranchState();
        EXPECT_EQ(toUtf8(state.commit) + (state.commit.empty() ? "" : "\n"),
                  copy.sh("cd " + folder + "; git rev-parse --verify -q HEAD || :"));
        auto text = state.branch.empty() ? "(none)" : toUtf8(state.branch);
        if (!state.upstream.empty())
            text += " follows " + toUtf8(state.upstream);
        if (state.isUpstreamGone)
            text += ", gone";
        if (state.divergence)
            text += " +" + std::to_string(state.divergence->ahead) + " -" +
                    std::to_string(state.divergence->behind);
        static constexpr const char* operations[] = {
            "", " Merge", " Rebase", " CherryPick", " Revert", " Bisect", " ApplyMailbox"};
        text += operations[static_cast<int>(state.operation)];
        if (!state.operationBranch.empty())
            text += " of " + toUtf8(state.operationBranch);
        if (state.progress)
            text += " " + std::to_string(state.progress->step) + "/" +
                    std::to_string(state.progress->steps);
        return text;
    }
    std::string branch() { return branchAt("."); }

    Copy copy{{}, "git init -q"};
};

TEST_F(SubsystemTest, TellsTheBranchAndWhatItFollows) {
    EXPECT_EQ(branch(), "main");
    copy.sh(R"sh(git init -q --bare ../up; git remote add up ../up
        git config branch.main.remote up; git config branch.main.merge refs/heads/main
        echo '* filter=x' > .gitattributes; echo 1 > f; git add -A; touch -d @1 f
        git config filter.x.clean "touch $PWD/../canary; cat")sh");
    EXPECT_EQ(branch(), "main follows up/main, gone");
    copy.sh("test ! -e ../canary; git status; test -e ../canary");
    copy.sh(R"sh(git config --remove-section filter.x; git commit -qam 1; git push -q up main
        git checkout -q --orphan born)sh");
    EXPECT_EQ(branch(), "born");
    copy.sh("git config branch.born.remote up; git config branch.born.merge refs/heads/main");
    EXPECT_EQ(branch(), "born follows up/main");

    copy.sh(
        R"sh(git checkout -q -f -b topic/größe main; for i in 1 2; do git commit -q --allow-empty -m b$i
        done; git push -q -u up topic/größe; git reset -q --hard HEAD~2)sh");
    EXPECT_EQ(branch(), "topic/größe follows up/topic/größe +0 -2");
    copy.sh("git commit -q --allow-empty -m a");
    EXPECT_EQ(branch(), "topic/größe follows up/topic/größe +1 -2");
    copy.sh("git update-ref -d refs/remotes/up/topic/größe; git pack-refs --all");
    EXPECT_EQ(branch(), "topic/größe follows up/topic/größe, gone");
    copy.sh("git symbolic-ref HEAD refs/heads/topic"); // the folder of the other, and no branch
    EXPECT_EQ(branch(), "topic");

    copy.sh("git checkout -q -f -b local --track main");
    EXPECT_EQ(branch(), "local follows main +0 -0");
    copy.sh("git tag main"); // two of that name: git says which
    EXPECT_EQ(branch(), "local follows heads/main +0 -0");
    copy.sh("git config branch.local.remote https://example.org/r"); // kept nowhere
    EXPECT_EQ(branch(), "local");
    copy.sh("git checkout -q --detach");
    EXPECT_EQ(branch(), "(none)");

    copy.sh(R"sh(git worktree add -q -b linked ../linked; git checkout -q -B main up/main
        git submodule --quiet add -b main "$PWD/../up" sub)sh");
    EXPECT_EQ(branchAt("../linked"), "linked");
    EXPECT_EQ(branchAt("sub"), "main follows origin/main +0 -0");
    EXPECT_EQ(branch(), "main follows up/main +0 -0");

    copy.sh("echo garbage > .git/refs/heads/main");
    EXPECT_THROW(branch(), exception::DamagedRepositoryError);
}

TEST_F(SubsystemTest, TellsOneMoment) {
    copy.sh(R"sh(git commit -q --allow-empty -m 1; git checkout -q -b other
        git commit -q --allow-empty -m 2; git checkout -q main; cat > ../git <<'END'
#!/bin/sh
# Others switch the branch between the first two questions.
[ "$1" != for-each-ref ] || ! mkdir ../once 2>&- || git symbolic-ref HEAD refs/heads/other
exec git "$@"
END
        chmod +x ../git)sh");
    const auto adapter = GitAdapterFactory({.executable = copy.sandbox().root() / "git"})
                             .createAdapter(copy.root(), nullptr);
    const auto state = of<BranchInformation>(*adapter).getBranchState();
    EXPECT_EQ(toUtf8(state.branch), "other");
    EXPECT_EQ(toUtf8(state.commit) + "\n", copy.sh("git rev-parse other"));
}

TEST_F(SubsystemTest, TellsWhatIsUnderWay) {
    copy.sh(R"sh(c() { echo "$1" > f; git add -A; git commit -q -m "$1"; }
        c base; git checkout -q -b side; c s1; c s2; git checkout -q main; c m1; c m2
        git worktree add -q -b topic/one ../linked main; ! git merge -q side)sh");
    EXPECT_EQ(branch(), "main Merge");
    copy.sh("git merge --abort; ! git cherry-pick side~ side 2>&1");
    EXPECT_EQ(branch(), "main CherryPick");
    copy.sh("git commit -q -am picked"); // one of two
    EXPECT_EQ(branch(), "main CherryPick");
    copy.sh("git cherry-pick --quit; git reset -q --hard HEAD~; ! git revert --no-edit HEAD~1 "
            "HEAD~2 2>&1");
    EXPECT_EQ(branch(), "main Revert");
    copy.sh("git revert --abort; cd ../linked; ! git rebase -q side 2>&1");
    EXPECT_EQ(branchAt("../linked"), "(none) Rebase of topic/one 1/2");
    EXPECT_EQ(branch(), "main");
    copy.sh("git checkout -q --detach; ! git rebase -q side 2>&1");
    EXPECT_EQ(branch(), "(none) Rebase 1/2");
    copy.sh("git rebase --abort; git checkout -q main; ! git rebase -q --apply side 2>&1");
    EXPECT_EQ(branch(), "(none) Rebase of main 1/2");
    copy.sh("git rebase --abort; ! git format-patch --stdout main..side | git am -q 2>&1");
    EXPECT_EQ(branch(), "main ApplyMailbox 1/2");
    copy.sh("git am --abort; git bisect start side main >/dev/null");
    EXPECT_EQ(branch(), "(none) Bisect of main");

    // What is no file is not waited for.
    copy.sh(
        "git bisect reset 2>/dev/null; mkdir .git/rebase-merge; echo 3 > .git/rebase-merge/end");
    copy.sh("mkfifo .git/rebase-merge/head-name");
    EXPECT_EQ(branch(), "main Rebase");
    copy.sh("mkfifo .git/MERGE_HEAD");
    EXPECT_THROW(branch(), exception::DamagedRepositoryError);
}

TEST_F(SubsystemTest, GivesContentAsACheckoutWouldWriteIt) {
    copy.sh(R"sh(printf '*.crlf eol=crlf\n*.mine filter=mine\n*.own filter=own\n' > .gitattributes
        git config --global filter.mine.clean 'tr a-z A-Z'
        git config --global filter.mine.smudge 'tr A-Z a-z'
        printf '1\n2\n' > 'ä
.crlf'; echo mine > a.mine; echo own > a.own; ln -s 'to nowhere' link; mkdir d; echo old > d/old; echo > d/f
        git init -q sub; git -C sub commit -q --allow-empty -m s; git add -A 2>&1
        git commit -q -m one; git config filter.own.smudge cat; git mv d/old d/new
        git commit -q -m two; printf '1\n2\n3\n' > 'ä
.crlf'; git rm -q --cached d/new; git add *.crlf; printf '4\n' > 'ä
.crlf'; git update-index --split-index)sh");
    const auto& contents = of<RevisionContent>(copy.adapter());
    const auto get = [&](const char* name, const char16_t* revision, std::size_t limit = enough) {
        return contents.getContent(copy.at(name), revision, limit);
    };
    const auto staged = [&](const char* name) {
        return contents.getStagedContent(copy.at(name), enough);
    };
    test::TreeWatch watch(copy.sandbox().root());
    EXPECT_EQ(get("ä\n.crlf", u"HEAD", 6), "1\r\n2\r\n");
    EXPECT_EQ(staged("ä\n.crlf"), "1\r\n2\r\n3\r\n");
    EXPECT_EQ(get("a.mine", u"main"), "mine\n");
    EXPECT_EQ(get("link", u"HEAD"), "to nowhere");
    EXPECT_EQ(get("d/old", u"HEAD~"), "old\n");
    EXPECT_EQ(get("d/new", u"HEAD"), "old\n");
    for (const char* name : {"d/old", "nothing", "link/x", "sub/x", "*"})
        EXPECT_EQ(get(name, u"HEAD"), std::nullopt) << name;
    EXPECT_EQ(staged("d/new"), std::nullopt);

    const auto says = [](const char* words) {
        return testing::ThrowsMessage<exception::OperationFailedError>(HasSubstr(words));
    };
    EXPECT_THAT([&] { get("a.own", u"HEAD"); }, says("'own'"));
    EXPECT_THAT([&] { staged("a.own"); }, says("'own'"));
    EXPECT_THAT([&] { get("sub", u"HEAD"); }, says("is a submodule"));
    EXPECT_THAT([&] { staged("sub"); }, says("is a submodule"));
    EXPECT_THAT([&] { get("d", u"HEAD~"); }, says("is a folder"));
    EXPECT_THAT([&] { staged("d"); }, says("is a folder"));
    EXPECT_THAT([&] { staged("."); }, says("not a file"));
    EXPECT_THAT([&] { get(".git/HEAD", u"HEAD"); }, says("not a file"));
    EXPECT_THAT([&] { get("link", u"nothing"); }, says("no revision 'nothing'"));
    // As it is kept it has four bytes, and six in a checkout.
    EXPECT_THAT([&] { get("ä\n.crlf", u"HEAD", 5); }, says("more than 5 bytes in revision HEAD"));
    EXPECT_THAT([&] { get("ä\n.crlf", u"HEAD", 3); },
                says("has 4 bytes in revision HEAD, and 3 is the limit"));

    const auto origin = std::make_shared<QueryOrigin>();
    origin->cancel();
    {
        const QueryOrigin::WorkScope scope(origin);
        EXPECT_THROW(get("link", u"HEAD"), exception::OperationCancelledError);
        EXPECT_THROW(of<BranchInformation>(copy.adapter()).getBranchState(),
                     exception::OperationCancelledError);
    }
    EXPECT_EQ(branch(), "main");
    EXPECT_THAT(watch.drain(), IsEmpty());

    copy.sh(R"sh(o=$(git rev-parse HEAD:a.own)
        printf "0 $o 0\ta.mine\n100644 $o 2\ta.mine\n" | git update-index --index-info)sh");
    EXPECT_THAT([&] { staged("a.mine"); }, says("is conflicted"));
}

/// "message path, " for each revision, up to `most`; then git is stopped.
std::string historyOf(CMAdapter& adapter, const Path& path, const RevisionQuery& query = {},
                      std::size_t most = enough) {
    const auto& history =
        *std::any_cast<RevisionHistory*>(adapter.getSubsystem(typeid(RevisionHistory)));
    std::string text;
    std::size_t count = 0;
    history.readRevisions(path, query, [&](std::unique_ptr<Revision> revision) {
        const auto place = revision->path.lexicallyRelative(adapter.getRootFolder());
        text += toUtf8(revision->message) + " " + place.toUtf8() + ", ";
        return ++count < most;
    });
    return text;
}

TEST_F(SubsystemTest, ReadsTheHistoryOfWhateverIsNamed) {
    const auto of = [&](const char* name, const RevisionQuery& query = {}) {
        return historyOf(copy.adapter(), copy.at(name), query);
    };
    EXPECT_EQ(of("."), "");
    EXPECT_EQ(of("f"), "");
    copy.sh(R"sh(c() { git add -A; git commit -qm $1; }
        mkdir d; seq 9 > d/old; c one; git mv d/old ':new'; c two; seq 10 > ':new'; c three; rmdir d; echo 1 > d; c four
        git config log.follow true; git config log.showSignature true)sh");
    EXPECT_EQ(of("."), "four ., three ., two ., one ., ");
    EXPECT_EQ(of(":new"), "three :new, two :new, one d/old, ");
    EXPECT_EQ(of(":new", {.limit = 2}), "three :new, two :new, ");
    EXPECT_EQ(of(":new", {.limit = 0}), "");
    EXPECT_EQ(of(":new", {.followRenames = false}), "three :new, two :new, ");
    EXPECT_EQ(of("d/old"), "two d/old, one d/old, ");
    const auto third = copy.adapter().findRevision(copy.at(":new"), u"HEAD~2");
    EXPECT_EQ(of(":new", {.from = third.get()}), "two :new, one d/old, ");
    third->path = copy.root();
    EXPECT_EQ(of(".", {.from = third.get(), .limit = 1}), "two ., ");
    copy.sh("rm d; mkdir d"); // that the file d is a folder now does not matter to git
    EXPECT_EQ(of("d"), "four d, two d, one d, ");
    for (const char* name : {"../other", ".git/HEAD"})
        EXPECT_THROW(of(name), exception::OperationFailedError);
}

TEST_F(SubsystemTest, ReadsNoMoreHistoryThanIsWanted) {
    copy.sh("for i in 1 2 3; do git commit -q --allow-empty -m $i; done");
    // It prints them and never ends; or says what it was told.
    const OtherGit endless("log", "git \"$@\"; exec sleep 1000"),
        limited("log", "echo $* >&2; exit 3");
    const auto with = [&](const OtherGit& git) {
        return GitAdapterFactory({.executable = git.path().native()})
            .createAdapter(copy.root(), copy.interactor());
    };
    const auto adapter = with(endless);
    EXPECT_EQ(historyOf(*adapter, copy.root(), {}, 2), "3 ., 2 ., ");
    const auto read = [&](const std::function<bool()>& receive) {
        of<RevisionHistory>(*adapter).readRevisions(copy.root(), {},
                                                    [&](auto) { return receive(); });
    };
    EXPECT_THROW(read([]() -> bool { throw std::system_error(EIO, std::generic_category()); }),
                 std::system_error);
    EXPECT_THROW(read([&] {
                     copy.interactor()->getTerminationTrigger().trigger();
                     return true;
                 }),
                 exception::OperationCancelledError);
    EXPECT_THAT([&] { historyOf(*with(limited), copy.root(), {.limit = 10}); },
                testing::ThrowsMessage<exception::OperationFailedError>(HasSubstr("=10")));
}

TEST_F(SubsystemTest, FetchesForAPartialCloneWhatTheUserAskedFor) {
    // To tell that the file was renamed, its contents have to be compared.
    copy.sh(R"sh(rm -rf .git; git init -q ../up; cd ../up; git config uploadpack.allowFilter true
        c() { git add -A; git commit -qm $1; }; seq 9 > old; c one; git mv old new; seq 10 > new; c two
        seq 11 > new; c three; for to in work listed; do
        git clone -q --filter=blob:none --no-checkout "file://$PWD" ../$to; git -C ../$to read-tree HEAD
        done)sh");
    const auto open = [&](const char* folder) {
        return GitAdapterFactory().createAdapter(copy.at(folder), copy.interactor());
    };
    const auto missing = [&] {
        return copy.sh("git rev-list --objects --all --missing=print | grep -c '^?' || :");
    };
    const auto adapter = open("."), other = open("../listed");
    adapter->getStatus(copy.root(), true);
    EXPECT_EQ(branch(), "main follows origin/main +0 -0");
    const auto& contents = of<RevisionContent>(*adapter);
    for (const bool isStaged : {false, true})
        EXPECT_THAT(
            [&] {
                isStaged ? contents.getStagedContent(copy.at("new"), enough)
                         : contents.getContent(copy.at("new"), u"HEAD", enough);
            },
            testing::ThrowsMessage<exception::OperationFailedError>(HasSubstr("partial clone")));
    EXPECT_THAT([&] { contents.getContent(copy.at("new"), u"missing", enough); },
                testing::ThrowsMessage<exception::OperationFailedError>(HasSubstr("no revision")));
    EXPECT_EQ(missing(), "3\n");

    // A program that only the repository names is not run; the user's own is.
    const std::string server =
        R"sh( remote.origin.uploadpack "touch $PWD/../canary; git-upload-pack")sh";
    copy.sh("git config" + server);
    const auto head = adapter->findRevision(copy.at("new"), u"HEAD");
    const auto exportHead = [&] {
        adapter->exportRevision(copy.at("new"), *head, copy.at("exported"));
    };
    double fraction = 0;
    const boost::signals2::scoped_connection progress =
        copy.interactor()->getProgressDispatcher().connect(
            [&](const UString&, double reported) { fraction = reported; });
    EXPECT_THAT(exportHead, testing::ThrowsMessage<exception::SourceControlException>(
                                HasSubstr("sets remote.origin.uploadpack, a program")));
    EXPECT_EQ(fraction, ProgressIndicator::unknown);
    copy.sh("test ! -e ../canary; git config --global" + server);
    EXPECT_NO_THROW(exportHead());
    EXPECT_EQ(fraction, 1);
    copy.sh("test -e ../canary; seq 11 | cmp - exported");
    EXPECT_EQ(missing(), "2\n");

    // Nothing is handed over twice when git is started again.
    EXPECT_EQ(historyOf(*adapter, copy.at("new")), "three new, two new, one old, ");
    EXPECT_EQ(missing(), "0\n");
    const auto listed = other->listRevisions(copy.at("../listed/new"), std::nullopt);
    EXPECT_EQ(listed.size(), 3U);
}

} // namespace
} // namespace quendo::git
