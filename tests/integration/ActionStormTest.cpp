#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/exception/SourceControlException.h"
#include "quendo/management/CMActionManager.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/git/Copy.h"
#include "tests/integration/Scenarios.h"
#include "tests/support/RealFolder.h"
#include "tests/support/States.h"

namespace quendo::test {
namespace {

using Paths = std::vector<Path>;

/// A working copy at which a person, other tools and the library work by turns.
class ActionStorm {
public:
    explicit ActionStorm(unsigned seed) : m_random(seed) {
        m_sandbox.enterEnvironment();
        m_sandbox.init();
        // git knows the empty tree without having it, but its fsck misses it.
        m_sandbox.git({"hash-object", "-w", "-t", "tree", "/dev/null"});
        m_real.longestDelay = std::chrono::milliseconds(1);
        m_real.services.factorySources =
            std::make_shared<FakeSources>(std::vector<std::shared_ptr<CMAdapterFactory>>{
                std::make_shared<git::GitAdapterFactory>()});
        m_provider = createNewManagedFolderProviderInstance(m_real.services);
        work(15);
        m_raw = git::GitAdapterFactory().createAdapter(m_root,
                                                       std::make_shared<CMApplicationInteractor>());
        m_followed.emplace(m_provider->provideFor(m_root));
        m_followed->cache.refreshAll();
        m_states = m_raw->getStatus(m_root, true);
    }

    /// Some steps of everybody's. @return what went wrong, empty when all agree
    std::string step(bool withProgram) {
        m_steps.clear();
        std::string wrong;
        if (below(5) < 2)
            work(1 + below(4));
        else
            wrong = operate();
        return wrong.empty() ? disagreement(withProgram) : wrong;
    }
    const std::string& steps() const { return m_steps; }
    std::string fsck() const {
        const auto result = m_sandbox.tryGit({"fsck", "--strict", "--no-dangling"});
        return result.exitCode == 0 ? "" : result.errors + result.output;
    }

private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

    std::string anyName() {
        static constexpr const char* names[] = {"a",     "A",    "b.log", "c d",
                                                "\xFFx", "n\nl", "*",     "-n"};
        std::string name = names[below(std::size(names))];
        for (unsigned depth = below(3); depth > 0; --depth)
            name += std::string("/") + names[below(4)];
        return name;
    }
    /// One that is in such a state, as a rule.
    Path anyPath(const std::set<LocalStatus>& fitting) {
        Paths paths;
        for (const auto& [path, state] : m_states)
            if (path != m_root && (fitting.contains(state.getState()) || below(8) == 0))
                paths.push_back(path);
        return paths.empty() || below(6) == 0 ? m_root.child(anyName())
                                              : paths[below(static_cast<unsigned>(paths.size()))];
    }

    // Many make no sense, and are refused.
    void work(unsigned count) {
        std::vector<std::string> command{"sh", "-c", R"sh(
            clear() {
                d=${1%/*}; while [ ! -d "$d" ]; do rm -f "$d"; d=${d%/*}; done
                rm -rf "$1"; mkdir -p "${1%/*}"
            }
            export GIT_LITERAL_PATHSPECS=1 GIT_EDITOR=true
            while [ $# != 0 ]; do
                case $1 in
                0|1) clear "$2"; printf aaa > "$2";; 2) clear "$2"; echo bbb > "$2";;
                3) clear "$2"; date +%N > "$2";; 4) clear "$2"; ln -s . "$2";;
                5) rm -rf "$2";; 6) mv "$2" "$3";; 7) [ ! -f "$2" ] || chmod +x "$2";;
                8) [ ! -f "$2" ] || chmod -x "$2";; 9) git add -f -- "$2";; 10|11) git add -A;;
                12) git add -N -- "$2";; 13) git rm -rqf --cached -- "$2";;
                14) git rm -rqf -- "$2";; 15|16|17) git add -A; git commit -qm x;;
                18) git stash -q;; 19) git stash pop -q;; 20) git reset -q;;
                21) git reset -q --hard;; 22) printf '*.log\n/a/\n' > .gitignore;;
                23) rm -f .gitignore;; 24) git checkout -qB side;; 25) git checkout -q main;;
                26) git checkout -q side;; 27|28|29) git merge -q side || git merge -q main;;
                30) git rebase -q main;; 31) git rebase --abort || git merge --abort;;
                32) git mv -- "$2" "$3";; 33) git commit -qm y;; 34) mkdir -p "$2";;
                35) git cherry-pick side;; 36) git revert --no-edit HEAD;;
                37) git update-index --skip-worktree -- "$2";;
                38) git update-index --no-skip-worktree -- "$2";;
                39) printf '!b.log\nc d\n' > .gitignore
                esac; shift 3
            done)sh",
                                         "sh"};
        for (; count > 0; --count) {
            const auto what = std::to_string(below(40));
            command.insert(command.end(), {what, "./" + anyName(), "./" + anyName()});
            m_steps += "work " + what + " " + *(command.end() - 2) + " " + command.back() + "\n";
        }
        m_sandbox.run(command, m_sandbox.work());
    }

    std::string operate() {
        auto& adapter = m_followed->folder->getAdapter();
        using enum LocalStatus;
        Paths paths;
        Path one, to;
        struct Operation {
            const char* name;
            std::set<LocalStatus> fitting;
            std::function<void()> run;
            bool isInSteps = false; ///< what was done before a refusal stays done
            bool keepsAll = true;   ///< gives no content up
        };
        const std::set<LocalStatus> changed{Modified, Missing, Added, Deleted};
        const Operation operations[] = {
            {"checkin", changed, [&] { adapter.checkin(paths, u"some"); }},
            {"checkin of one", changed, [&] { adapter.checkin(one, u"# one"); }},
            {"add", {NotUnderSourceControl, Modified}, [&] { adapter.addFiles(paths); }},
            {"remove", {Unmodified, Missing}, [&] { adapter.removeFiles(paths); }},
            {"move", {Unmodified, Modified, Added}, [&] { adapter.moveFile(one, to); }},
            {"moved", {Missing}, [&] { adapter.moveFile(one, to); }},
            {"uncheckout", changed, [&] { adapter.uncheckout(paths); }, false, false},
            {"discard", {}, [&] { adapter.discardChanges(); }, false, false},
            {"resolve", {Conflicted}, [&] { adapter.resolveConflict(one); }},
            {"checkout", {Unmodified, Modified}, [&] { adapter.checkout(paths); }},
            {"ignore", {NotUnderSourceControl}, [&] { m_raw->ignoreFile(one); }},
            {"managed add",
             {NotUnderSourceControl, Deleted},
             [&] { management::CMActionManager(adapter).add(paths, m_root); },
             true},
            {"managed remove",
             {Unmodified, Added},
             [&] { management::CMActionManager(adapter).remove(paths); },
             true},
        };
        const auto& operation = operations[below(std::size(operations))];
        for (unsigned count = 1 + below(3); count > 0; --count)
            paths.push_back(anyPath(operation.fitting));
        one = paths.front();
        to = below(3) ? m_root.child(anyName()) : anyPath({NotUnderSourceControl});
        m_steps += operation.name;
        for (const auto& path : paths)
            m_steps += " " + path.toUtf8();
        m_steps += " (to " + to.toUtf8() + ")\n";
        const auto before = git::everything(m_sandbox, m_sandbox.work());
        const auto filesBefore = files();
        try {
            operation.run();
        } catch (const exception::SourceControlException& error) {
            m_steps += std::string("refused: ") + error.what() + "\n";
            const auto after = git::everything(m_sandbox, m_sandbox.work());
            return (operation.isInSteps && paths.size() > 1) || before == after
                       ? ""
                       : "refused, and yet:\n" + before + "became\n" + after;
        }
        return lost(before, filesBefore, operation.keepsAll);
    }

    /// The regular files of the working copy, and what is in them.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> contents;
        for (auto at = fs::recursive_directory_iterator(m_sandbox.work()); at != fs::end(at); ++at)
            if (at->path().filename() == ".git")
                at.disable_recursion_pending();
            else if (fs::is_regular_file(at->symlink_status()))
                contents[at->path().lexically_relative(m_sandbox.work())] = readFile(at->path());
        return contents;
    }

    /// Content that is nowhere any more; content given up counts when Git did not know it.
    std::string lost(const std::string& before,
                     const std::map<std::string, std::string>& filesBefore, bool keepsAll) const {
        std::set<std::string> there;
        for (const auto& [name, content] : files())
            there.insert(content);
        const std::set foreign{LocalStatus::NotUnderSourceControl, LocalStatus::Added,
                               LocalStatus::Ignored};
        std::string text;
        for (const auto& [name, content] : filesBefore) {
            const auto state = m_states.find(m_root.child(name));
            const bool isForeign =
                state != m_states.end() && foreign.contains(state->second.getState());
            if (there.contains(content) || (!keepsAll && !isForeign) || name == ".gitignore")
                continue;
            writeFile(m_sandbox.root() / "lost", content);
            const auto object =
                m_sandbox.git({"hash-object", (m_sandbox.root() / "lost").native()}).substr(0, 40);
            if (before.find(object) == std::string::npos &&
                m_sandbox.git({"rev-list", "--objects", "--all", "HEAD"}).find(object) ==
                    std::string::npos)
                text += "lost: " + name + " with " + content + "\n";
        }
        return text;
    }

    std::string disagreement(bool withProgram) {
        m_states = m_raw->getStatus(m_root, true);
        const auto ofGit = recordsOfGit(m_sandbox);
        const auto compare = [&](const std::string& who, const std::vector<std::string>& records) {
            return records == ofGit ? ""
                                    : "git says " + testing::PrintToString(ofGit) + "\n" + who +
                                          " says " + testing::PrintToString(records) + "\n";
        };
        auto wrong = compare("the adapter", recordsOf(m_states, m_root)) + partsThatDiffer();
        if (withProgram)
            wrong += compare("the program", recordsOfQuendo(m_sandbox));
        if (!wrong.empty())
            return wrong;
        // All that has happened on the disk has been told; what it brings is waited for.
        std::promise<void> reached;
        m_real.services.folderWatcher->fence([&] { reached.set_value(); });
        within(reached.get_future());
        std::unique_lock lock(m_followed->news->mutex);
        m_followed->news->came.wait_until(lock, byDeadline(), [&] {
            wrong = compare("the cache", recordsOf(m_followed->cached(), m_root));
            return wrong.empty();
        });
        return wrong;
    }

    /// Any part answers as the whole does, a folder with all that is below it; and what is tracked
    /// when only that is asked for. What a part names beyond the whole was asked for by name.
    std::string partsThatDiffer() {
        Paths asked;
        for (unsigned i = 1 + below(4); i > 0; --i)
            asked.push_back(m_root.child(anyName()));
        const auto part = m_raw->getStatus(asked), tracked = m_raw->getStatus(m_root, false);
        std::string wrong;
        for (const auto& [path, state] : m_states) {
            const auto inPart = part.find(path), inTracked = tracked.find(path);
            const bool isAsked = std::ranges::any_of(
                asked, [&](const Path& one) { return path == one || path.isBelow(one); });
            const bool isUntracked = state.getState() == LocalStatus::NotUnderSourceControl ||
                                     state.getState() == LocalStatus::Ignored;
            if (isAsked && (inPart == part.end() || !(inPart->second == state)))
                wrong += path.toUtf8() + " differs when it is asked for\n";
            if (isUntracked != (inTracked == tracked.end()) ||
                (!isUntracked && !(inTracked->second == state)))
                wrong += path.toUtf8() + " differs among what is tracked\n";
        }
        for (const auto& [path, state] : part)
            if (!m_states.contains(path) && std::ranges::count(asked, path) == 0)
                wrong += path.toUtf8() + " was not asked for\n";
        return wrong;
    }

    GitSandbox m_sandbox;
    const Path m_root = Path::fromNative(m_sandbox.work().native());
    std::mt19937 m_random;
    std::string m_steps;
    std::map<Path, FileState> m_states; ///< by the last step
    RealServices m_real;
    std::unique_ptr<ManagedFolderProvider> m_provider;
    std::unique_ptr<CMAdapter> m_raw;
    std::optional<FollowedFolder> m_followed;
};

class ActionStormTest : public testing::TestWithParam<unsigned> {};

// QUENDO_SEED=number runs that one alone.
TEST_P(ActionStormTest, EverybodyAgreesAndNothingIsLost) {
    const char* only = std::getenv("QUENDO_SEED");
    const unsigned seeds = only == nullptr && isLong ? 125 : 1;
    const unsigned first =
        only != nullptr ? static_cast<unsigned>(std::atoi(only)) : seeds * GetParam() + 1;
    for (unsigned seed = first; seed < first + seeds; ++seed) {
        std::string steps;
        ActionStorm storm(seed);
        for (unsigned step = 1; step <= (only || isLong ? 60U : 20U); ++step) {
            const auto wrong = storm.step(step % 10 == 0);
            steps += storm.steps();
            if (!wrong.empty()) {
                ADD_FAILURE() << "seed " << seed << ", step " << step << ":\n"
                              << wrong << "after\n"
                              << steps;
                break;
            }
        }
        EXPECT_EQ(storm.fsck(), "") << "seed " << seed;
    }
}
INSTANTIATE_TEST_SUITE_P(Shard, ActionStormTest, testing::Range(0U, 4U));

} // namespace
} // namespace quendo::test
