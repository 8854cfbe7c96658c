#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/git/GitAdapterFactory.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/States.h"
#include "tests/support/Testing.h"

namespace quendo::git {
namespace {

/// Does to a working copy what people and tools do, at random.
class Monkey {
public:
    Monkey(const test::GitSandbox& sandbox, unsigned seed) : m_sandbox(sandbox), m_random(seed) {}

    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

    // Few names on few levels, so that files meet folders of the same name.
    fs::path anyPath() {
        static constexpr const char* names[] = {"a", "b.log", "c d", "\xFFx", "n\nl", "é"};
        fs::path path;
        for (unsigned depth = 1 + below(3); depth > 0; --depth)
            path /= names[below(std::size(names))];
        return path;
    }

    /// Many make no sense, and are refused.
    void act(int count) {
        std::vector<std::string> command{"sh", "-c", R"sh(
            clear() {
                d=${1%/*}; while [ ! -d "$d" ]; do rm -f "$d"; d=${d%/*}; done
                rm -rf "$1"; mkdir -p "${1%/*}"
            }
            export GIT_LITERAL_PATHSPECS=1
            while [ $# != 0 ]; do
                case $1 in
                0|1) clear "$2"; printf aaa > "$2";; 2) clear "$2"; printf bbb > "$2";;
                3) clear "$2"; printf c > "$2";; 4) clear "$2"; ln -s a "$2";;
                5) rm -rf "$2";; 6) mv "$2" "$3";; 7) [ ! -f "$2" ] || chmod +x "$2";;
                8) [ ! -f "$2" ] || chmod -x "$2";; 9) git add -f -- "$2";; 10) git add -A;;
                11) git add -N -- "$2";; 12) git rm -rqf --cached -- "$2";;
                13) git rm -rqf -- "$2";; 14) git commit -qm x;; 15) git stash -q;;
                16) git reset -q;; 17) printf '*.log\n/a/\n' > .gitignore;;
                18) printf '!b.log\nc d\n' > .gitignore;;
                19) git update-index --skip-worktree -- "$2";;
                20) git update-index --no-skip-worktree -- "$2"
                esac; shift 3
            done)sh",
                                         "sh"};
        for (; count > 0; --count)
            command.insert(command.end(), {std::to_string(below(21)), "./" + anyPath().native(),
                                           "./" + anyPath().native()});
        m_sandbox.run(command, m_sandbox.work());
    }

private:
    const test::GitSandbox& m_sandbox;
    std::mt19937 m_random;
};

TEST(RandomStateTest, AgreesWithGitAndWithItself) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    const unsigned seeds = test::isLong ? 200 : 1000;
    unsigned compared = 0;
    for (unsigned seed = 1;
         seed <= seeds && (test::isLong || std::chrono::steady_clock::now() < end); ++seed) {
        test::GitSandbox sandbox;
        sandbox.enterEnvironment();
        sandbox.init();
        Monkey monkey(sandbox, seed);
        const auto root = Path::fromNative(sandbox.work().native());
        const auto adapter =
            GitAdapterFactory().createAdapter(root, std::make_shared<CMApplicationInteractor>());
        for (int round = 0; round < 6; ++round) {
            monkey.act(12);
            const auto label = "seed " + std::to_string(seed) + ", round " + std::to_string(round);
            const auto whole = adapter->getStatus(root, true);
            ASSERT_EQ(test::recordsOf(whole, root), test::recordsOfGit(sandbox)) << label;
            // Any part answers as the whole does; a folder with all that is below it.
            std::vector<Path> asked;
            for (unsigned i = 1 + monkey.below(4); i > 0; --i)
                asked.push_back(root.child(monkey.anyPath().native()));
            const auto part = adapter->getStatus(asked);
            const auto tracked = adapter->getStatus(root, false);
            for (const auto& [path, state] : whole) {
                const auto about = label + ": " + path.toUtf8();
                const auto inPart = part.find(path), inTracked = tracked.find(path);
                const bool isAsked = std::ranges::any_of(
                    asked, [&](const Path& one) { return path == one || path.isBelow(one); });
                ASSERT_TRUE(!isAsked || (inPart != part.end() && inPart->second == state)) << about;
                const bool isUntracked = state.getState() == LocalStatus::NotUnderSourceControl ||
                                         state.getState() == LocalStatus::Ignored;
                ASSERT_EQ(inTracked == tracked.end(), isUntracked) << about;
                ASSERT_TRUE(isUntracked || inTracked->second == state) << about;
            }
            // What only the part names was asked for by name, and the whole names none above it.
            for (const auto& [path, state] : part)
                ASSERT_TRUE(whole.contains(path) || std::ranges::count(asked, path) != 0)
                    << label << ": " << path.toUtf8();
            ++compared;
        }
    }
    EXPECT_GT(compared, 5U);
}

} // namespace
} // namespace quendo::git
