#include "tests/integration/Scenarios.h"
#include "tests/support/OwnNamespaces.h"
#include "tests/support/RandomWork.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <deque>

namespace quendo::test {
namespace {

using nlohmann::json;

std::string pathOf(const json& line) {
    return line.value("path_hex", line.at("path").get<std::string>());
}

/// `quendo watch` beside the test, and what a program makes of its lines that believes them.
class Watch {
public:
    explicit Watch(const GitSandbox& sandbox, std::map<std::string, std::string> variables = {})
        : m_sandbox(sandbox), m_process({"env", "--default-signal=PIPE", QUENDO_PROGRAM, "watch",
                                         "--json", "--all", "--ignored", sandbox.work().native()},
                                        {sandbox.root(), environment(std::move(variables))}) {}

    /// Follows it until it shows what a fresh listing does, which the test keeps the same
    /// meanwhile.
    void expectCaughtUp(const std::string& about = {}) {
        const auto fresh = runQuendo(
            m_sandbox, {"status", "--json", "--all", "--ignored", m_sandbox.work().native()});
        ASSERT_EQ(fresh.errors, "") << about;
        States wanted;
        std::istringstream lines(fresh.output);
        for (std::string line; std::getline(lines, line);)
            wanted[pathOf(json::parse(line))] = json::parse(line);
        try {
            while (m_process.hasMore() || !differences(wanted).empty())
                takeIn();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what() << "\n" << differences(wanted) << about;
        }
    }

    /// Follows it until it says something with these words on standard error.
    void expectSaid(const std::string& words) {
        for (;; takeIn()) {
            while (!m_said.empty()) {
                const auto message = std::move(m_said.front());
                m_said.pop_front();
                if (message.find(words) != message.npos)
                    return;
            }
        }
    }

    /// Sends it a signal, and follows it to its end. @return the exit code
    int end(int signal) {
        ::kill(m_process.id(), signal);
        while (takeNext()) {
        }
        return m_process.exitCode();
    }

    RunningProcess& process() { return m_process; }
    const std::deque<std::string>& said() const { return m_said; }

private:
    using States = std::map<std::string, json>;

    std::map<std::string, std::string> environment(std::map<std::string, std::string> set) const {
        set.insert(m_sandbox.environment().begin(), m_sandbox.environment().end());
        return set;
    }

    std::string differences(const States& wanted) const {
        std::string text;
        for (const auto& [path, state] : wanted)
            if (const auto at = m_states.find(path); at == m_states.end() || at->second != state)
                text += "missed " + state.dump() + "\n";
        for (const auto& [path, state] : m_states)
            if (!wanted.contains(path) &&
                !(state.at("folder") && isWithoutFiles(m_sandbox.work() / path)))
                text += "shown  " + state.dump() + "\n";
        return text;
    }

    void takeIn() {
        if (!takeNext())
            throw std::runtime_error("it ended");
    }

    bool takeNext() {
        const auto line = m_process.next();
        if (line && line->isError)
            m_said.push_back(line->text);
        if (!line || line->isError)
            return line.has_value();
        auto object = json::parse(line->text);
        const auto path = pathOf(object);
        const auto at = m_states.find(path);
        const auto before = at == m_states.end() ? json() : at->second.at("state");
        EXPECT_EQ(object.value("before", json()), before) << line->text;
        object.erase("before");
        if (object.at("state").is_null())
            m_states.erase(path);
        else
            m_states[path] = std::move(object);
        return true;
    }

    const GitSandbox& m_sandbox;
    RunningProcess m_process;
    States m_states;
    std::deque<std::string> m_said;
};

TEST(Watch, TellsWhateverHappens) {
    const char* only = std::getenv("QUENDO_SEED");
    const unsigned first = only != nullptr ? static_cast<unsigned>(std::atoi(only)) : 1;
    for (unsigned seed = first; seed < first + (only ? 1 : isLong ? 20 : 2); ++seed) {
        const GitSandbox sandbox;
        sandbox.init();
        const bool hasNested = seed % 2 == 0;
        RandomWork work(sandbox, seed, hasNested);
        work.act(30);
        Watch watch(sandbox);
        for (unsigned done = 0; done < (isLong ? 200U : 30U) && !HasFailure();) {
            const unsigned count = 1 + work.below(6);
            const auto script = work.act(count);
            done += count;
            watch.expectCaughtUp("seed " + std::to_string(seed) + ", after " +
                                 std::to_string(done) + ":\n" + script);
        }
        EXPECT_EQ(watch.end(SIGINT), 130);
        if (!hasNested) {
            EXPECT_THAT(watch.said(), testing::IsEmpty());
        }
    }
}

TEST(Watch, FollowsARootThatGoesAndReturns) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w d/f; w e/f; c; w d/f 2; w n; cp -a . ../copy");
    Watch watch(sandbox);
    watch.expectCaughtUp();
    for (const auto& [away, back] :
         {std::pair("mv work away", "mv away work; echo 3 > work/e/f; rm work/n"),
          {"rm -rf work", "git clone -q copy work; echo > work/m"},
          {"mv work gone; : > work", "rm work; mkdir work; cp -a gone/.git work; echo > work/o"}}) {
        sandbox.run({"sh", "-c", away}, sandbox.root());
        watch.expectSaid("has gone");
        EXPECT_EQ(sandbox.run({"sh", "-c", back}, sandbox.root()).errors, "");
        watch.expectSaid("is back");
        watch.expectCaughtUp(back);
        runScript(sandbox, "w e/again; rm -rf d");
        watch.expectCaughtUp(back);
    }
}

TEST(Watch, SaysWhatGitCannotAnswer) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w f; w g; c");
    Watch watch(sandbox);
    watch.expectCaughtUp();
    for (const auto& [damage, mend] :
         {std::pair("cp .git/index ../aside; truncate -s 9 .git/index", "mv ../aside .git/index"),
          {"mv .git/HEAD ../aside; mkdir .git/HEAD", "rmdir .git/HEAD; mv ../aside .git/HEAD"},
          {"mv .git ../aside", "mv ../aside .git"}}) {
        runScript(sandbox, std::string(damage) + "; w g 2");
        watch.expectSaid(": cannot be refreshed: ");
        runScript(sandbox, std::string(mend) + "; w g 3");
        watch.expectSaid("is refreshed again");
        watch.expectCaughtUp(mend);
    }
}

// Nothing happens on the disk when git works again; the cache finds out by itself.
TEST(Watch, IsRightSoonAfterGitHasRecovered) {
    const GitSandbox sandbox;
    const auto broken = sandbox.root() / "broken", starts = sandbox.root() / "starts";
    runScript(sandbox, "i; w f; w g; c");
    const auto variables =
        withGit(sandbox, "if [ -e '" + broken.native() + "' ]; then echo >> '" + starts.native() +
                             "'; echo fatal: mine >&2; exit 1; fi; exec $REAL \"$@\"");
    Watch watch(sandbox, variables);
    RunningProcess program({"env", "PATH=" + variables.at("PATH"), QUENDO_PROGRAM, "watch",
                            "--json", "--branch", "--stale", "--debug"},
                           {sandbox.work(), sandbox.environment()});
    const auto nextStale = [&] {
        for (;;)
            if (const auto line = program.next().value(); !line.isError)
                if (const auto object = json::parse(line.text); object.contains("stale"))
                    return object.at("stale");
    };
    EXPECT_TRUE(json::parse(program.next().value().text).contains("branch"));
    watch.expectCaughtUp();
    writeFile(broken, "");
    writeFile(sandbox.work() / "f", "changed");
    watch.expectSaid(": cannot be refreshed: ");
    const auto begins = nextStale();
    EXPECT_TRUE(begins.contains("reason") && begins.contains("since"));
    EXPECT_THAT(std::string(begins.at("why")), testing::HasSubstr("mine"));
    fs::remove(broken);
    const auto recovered = std::chrono::steady_clock::now();
    watch.expectCaughtUp();
    std::printf("right %lld ms after git works again\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - recovered)
                                           .count()));
    watch.expectSaid("is refreshed again");
    EXPECT_LE(std::ranges::count(readFile(starts), '\n'), 40);
    EXPECT_TRUE(nextStale().is_null());
    ASSERT_EQ(::kill(program.id(), SIGUSR1), 0);
    for (const char* part : {"root: ", "file event: ", "last events:"})
        while (program.next().value().text.find(part) == std::string::npos) {
        }
}

TEST(Watch, DescribesAFirstQueryThatHangs) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w f; mkfifo ../goOn");
    const auto goOn = sandbox.root() / "goOn";
    const auto variables =
        withGit(sandbox, "case \"$*\" in *status*) [ ! -p '" + goOn.native() +
                             "' ] || read go < '" + goOn.native() + "'; esac; exec $REAL \"$@\"");
    RunningProcess program({"env", "PATH=" + variables.at("PATH"), QUENDO_PROGRAM, "watch",
                            "--json", "--all", "--debug"},
                           {sandbox.work(), sandbox.environment()});
    std::ofstream writer;
    within(onThread([&] { writer.open(goOn); }));
    ASSERT_EQ(::kill(program.id(), SIGUSR1), 0);
    for (std::string text; text.find("a refresh is running") == std::string::npos;)
        text = program.next().value().text;
    fs::remove(goOn);
    writer << std::endl;
    for (std::string text; text.find("\"f\"") == std::string::npos;)
        text = program.next().value().text;
}

TEST(WatchDeathTest, SaysThatChangesAreToldLate) {
    expectSuccessInOwnNamespaces([] {
        limitInotify("watches", 16);
        const GitSandbox sandbox;
        runScript(sandbox, "i; for d in $(seq 12); do w $d/f; done; c; w 9/f 2");
        Watch watch(sandbox);
        watch.expectSaid(": changes are told seconds late in ");
        runScript(sandbox, "for d in $(seq 12); do w $d/f 3; done; rm -r 4; git add 5 6 7");
        watch.expectCaughtUp();
        limitInotify("watches", 10'000);
        watch.expectSaid("is watched by the system again");
    });
}

TEST(Watch, StartsNoGitWhenNothingHappens) {
    const GitSandbox sandbox;
    const auto counted = sandbox.root() / "starts";
    runScript(sandbox, "i; w f; c; w ../a; w ../b; w ../c");
    Watch watch(sandbox, withGit(sandbox, "echo >> '" + counted.native() + "'; exec $REAL \"$@\""));
    watch.expectCaughtUp();
    std::vector<std::ptrdiff_t> starts; // by each change and all before
    for (const char* name : {"a", "b", "c"}) {
        fs::rename(sandbox.root() / name, sandbox.work() / name);
        // Others read meanwhile, which is nothing that happens.
        for (int i = 0; i < 5; ++i) {
            sandbox.git({"--no-optional-locks", "status"});
            watch.expectCaughtUp();
        }
        starts.push_back(std::ranges::count(readFile(counted), '\n'));
    }
    EXPECT_EQ(starts[2] - starts[1], starts[1] - starts[0]);
    EXPECT_EQ(starts[2] - starts[1], 2);
}

TEST(Watch, TenAreInNobodysWay) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w a; w b; w d/c; c");
    std::deque<Watch> watches;
    for (int i = 0; i < 10; ++i)
        watches.emplace_back(sandbox).expectCaughtUp();
    // Each step is a git command, and the script ends at the first that fails.
    runScript(sandbox, R"sh(for i in $(seq 17); do
        w a $i; w n$i; git add -A; git commit -qm $i; git checkout -qB b$((i % 3))
        w d/c $i; git stash -q; git stash pop -q; git gc -q; done
        mv d ../d; ln -s ../d d)sh");
    for (auto& watch : watches) {
        watch.expectCaughtUp();
        EXPECT_EQ(watch.end(SIGTERM), 143);
        EXPECT_THAT(watch.said(), testing::IsEmpty());
    }
}

TEST(Watch, EndsWhenAskedOrWhenNobodyReads) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w f; c; mkfifo ../alive");
    // The FIFO is open for as long as a query lives that was started beside the file "hang".
    const auto at = sandbox.root().native();
    const auto variables = withGit(
        sandbox, "case \"$*\" in *status*) if [ -e '" + at + "/hang' ]; then exec 9> '" + at +
                     "/alive'; sleep 1000 & echo >&9; wait; fi; esac; exec $REAL \"$@\"");
    for (const bool isWorking : {false, true}) {
        Watch watch(sandbox, variables);
        watch.expectCaughtUp();
        std::string interrupt = "kill -INT $0";
        if (isWorking)
            interrupt = "> hang; > work/n; exec 8< alive; read -r started <&8; " + interrupt +
                        "; cat <&8; rm hang";
        const auto id = std::to_string(watch.process().id());
        EXPECT_FALSE(sandbox.run({"bash", "-c", interrupt, id}, sandbox.root()).timedOut);
        EXPECT_FALSE(watch.process().next());
        EXPECT_EQ(watch.process().exitCode(), 130);
    }
    Watch watch(sandbox, variables);
    watch.expectCaughtUp();
    watch.process().closeOutput();
    EXPECT_FALSE(watch.process().next());
    EXPECT_EQ(watch.process().exitCode(), 128 + SIGPIPE);
}

TEST(Watch, CallsNoFolderBadlyWatchedThatComesAndGoes) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w d/e/f; c");
    Watch watch(sandbox);
    watch.expectCaughtUp();
    for (int i = 0; i < 12; ++i) {
        runScript(sandbox, "for i in 1 2 3 4 5; do rm -rf d x$i; w d/e/f; w x$i/y/z/f; done");
        watch.expectCaughtUp();
    }
    EXPECT_THAT(watch.said(), testing::IsEmpty());
}

TEST(Watch, ShowsTheBranchWhenItChanges) {
    const GitSandbox sandbox;
    runScript(sandbox, "i; w f; c");
    RunningProcess people({QUENDO_PROGRAM, "watch"}, {sandbox.work(), sandbox.environment()});
    RunningProcess program({QUENDO_PROGRAM, "watch", "--json", "--branch"},
                           {sandbox.work(), sandbox.environment()});
    EXPECT_THAT(people.next()->text, testing::StartsWith("nothing differs"));
    EXPECT_EQ(people.next()->text, "on main");
    EXPECT_EQ(json::parse(program.next()->text).at("branch"), "main");
    runScript(sandbox, "git checkout -qb topic");
    EXPECT_EQ(people.next()->text, "on topic");
    EXPECT_EQ(json::parse(program.next()->text).at("branch"), "topic");
    runScript(sandbox, "git bisect start");
    EXPECT_EQ(people.next()->text, "on topic");
    EXPECT_EQ(people.next()->text,
              "a bisection from topic is in progress: end it with git bisect reset");
    EXPECT_EQ(json::parse(program.next()->text).at("operation"), "bisect");
}

} // namespace
} // namespace quendo::test
