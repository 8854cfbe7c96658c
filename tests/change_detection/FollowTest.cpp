#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/cache/VFSFileChangeCacheUpdater.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/git/GitAdapterFactory.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/HookedAdapter.h"
#include "tests/support/SteppedDetection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>

namespace quendo {
namespace {

/// A cache that follows a real Git working copy by real events. All it does runs on the test's
/// thread, when the test says so.
class FollowedCopy {
public:
    explicit FollowedCopy(const test::GitSandbox& sandbox)
        : m_root(Path::fromNative(sandbox.work().native())),
          m_adapter(makeExternalChangeDetectingCMAdapter(
              std::make_unique<test::HookedAdapter>(
                  git::GitAdapterFactory().createAdapter(m_root, m_interactor),
                  [this](const test::Query&) { ++queries; }),
              m_interactor)),
          m_cache(createJobCombiningCache(m_adapter, m_interactor)) {
        m_cache->setFolderStatusFlag(true);
        m_interactor->getStatusDispatcher().connect(nonBlockingFullUpdateResponse(m_cache, m_root));
        m_updater.emplace(m_cache, *m_adapter);
        m_cache->refreshFolder(m_root);
        settle();
    }

    /// Until all that has happened was answered.
    void settle() {
        for (int quiet = 0; quiet < 2; ++quiet) {
            const int before = queries;
            if (m_detection.endWindows() != 0 || queries != before)
                quiet = -1;
        }
    }

    std::map<Path, FileState> cached() const {
        std::map<Path, FileState> states;
        for (const auto& path : m_cache->getCachedFiles())
            states.emplace(path, m_cache->getCachedStatus(path).value());
        return states;
    }
    std::map<Path, FileState> asked() { return m_adapter->getStatus(m_root, true); }

    int queries = 0;

private:
    test::SteppedDetection m_detection;
    const Path m_root;
    const std::shared_ptr<CMApplicationInteractor> m_interactor =
        std::make_shared<CMApplicationInteractor>();
    const std::shared_ptr<CMAdapter> m_adapter;
    const std::shared_ptr<CMStatusCache> m_cache;
    std::optional<VFSFileChangeCacheUpdater> m_updater;
};

bool isWithoutFiles(const std::filesystem::path& folder) {
    return std::filesystem::is_directory(folder) &&
           std::ranges::all_of(
               std::filesystem::recursive_directory_iterator(folder),
               [](const auto& entry) { return entry.is_directory() && !entry.is_symlink(); });
}

std::string differences(const std::map<Path, FileState>& cached,
                        const std::map<Path, FileState>& asked) {
    std::string text;
    const auto tell = [&](const char* what, const auto& from, const auto& other) {
        for (const auto& [path, state] : from) {
            const auto found = other.find(path);
            // A folder without files is answered when it is asked for, but in no folder's answer.
            if (&from == &cached && found == other.end() && state.isFolder() &&
                isWithoutFiles(path.toNative()))
                continue;
            if (found == other.end() || !(found->second == state))
                text += std::string(what) + " " + std::string(toString(state.getState())) +
                        (state.isFolder() ? " folder " : " ") + path.toUtf8() + "\n";
        }
    };
    tell("cached:", cached, asked);
    tell("asked:", asked, cached);
    return text;
}

// People, tools and git itself at work; whenever they pause, the cache is what a fresh query says.
TEST(Follow, CacheEqualsAFreshQueryWheneverThingsPause) {
    // In the long form only, until that has passed for every seed.
    if (std::getenv("QUENDO_LONG") == nullptr)
        GTEST_SKIP() << "SKIPPED: runs in the long form only";
    const unsigned seeds = 200, operations = 200;
    for (unsigned seed = 1; seed <= seeds; ++seed) {
        test::GitSandbox sandbox;
        sandbox.enterEnvironment();
        sandbox.init();
        std::mt19937 random(seed);
        const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
        const auto act = [&](unsigned count) {
            std::string script = R"sh(
                parent() { d=${1%/*}; [ "$d" = "$1" ] || mkdir -p "$d" 2>/dev/null || :; }
                )sh";
            static constexpr const char* names[] = {"a", "b.log", "c d", "e/f", "e/g/h", "i/j/k"};
            for (; count > 0; --count) {
                const std::string one = names[below(6)], other = names[below(6)];
                static constexpr const char* actions[] = {
                    "parent 'X'; echo $RANDOM >> 'X'",
                    "parent 'X'; echo same > 'X'",
                    "rm -rf 'X'",
                    "mv 'X' 'Y'",
                    "mkdir -p 'X/new/deep'; touch 'X/new/deep/file'",
                    "mkdir -p 'X'",
                    "touch 'X/late'",
                    "rm -rf ../out; mv 'X' ../out",
                    "mv ../out 'Y'",
                    "parent 'X'; rm -rf 'X'; ln -s a 'X'",
                    "chmod +x 'X'",
                    "chmod -x 'X'",
                    "git add -A",
                    "git add 'X'",
                    "git rm -rq --cached 'X'",
                    "git commit -qm x",
                    "git stash -q",
                    "git stash pop -q",
                    "git checkout -qB side",
                    "git checkout -q main",
                    "git checkout -q side",
                    "git reset -q --hard",
                    "printf '*.log\\n' > .gitignore",
                    "rm -f .gitignore",
                    "printf 'e/\\n' > .gitignore",
                    "cp 'X' t; mv t 'Y'"};
                std::string action = actions[below(std::size(actions))];
                for (const auto& [letter, name] : {std::pair("X", one), std::pair("Y", other)})
                    for (auto at = action.find(letter); at != action.npos;
                         at = action.find(letter, at + name.size()))
                        action.replace(at, 1, name);
                script += "{ " + action + "; } >/dev/null 2>&1 || :\n";
            }
            sandbox.run({"sh", "-c", script}, sandbox.work());
            return script;
        };
        act(30);
        FollowedCopy followed(sandbox);
        for (unsigned done = 0; done < operations;) {
            const unsigned count = 1 + below(6);
            const auto script = act(count);
            done += count;
            followed.settle();
            ASSERT_EQ(differences(followed.cached(), followed.asked()), "")
                << "seed " << seed << ", after " << done << ":\n"
                << script;
        }
        const int before = followed.queries;
        followed.settle();
        EXPECT_EQ(followed.queries, before) << "refreshes itself for ever";
    }
}

} // namespace
} // namespace quendo
