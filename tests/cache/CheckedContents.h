#pragma once

#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "tests/support/Testing.h"

namespace quendo::test {

using Contents = std::map<Path, FileState>;

/// What is said of folders must agree with what they hold, counted anew.
inline void expectFoldersOf(const Contents& contents, const auto& summaryOf,
                            const std::vector<Path>& folders) {
    std::map<Path, FolderSummary> expected;
    for (const auto& [path, state] : contents) {
        ++expected[path.parentPath()].direct[state.getState()];
        for (Path folder = path; !folder.empty();)
            ++expected[folder = folder.parentPath()].below[state.getState()];
    }
    std::vector<Path> holding;
    for (const auto& [folder, summary] : expected) {
        EXPECT_EQ(summaryOf(folder), summary) << folder;
        if (summary.direct.total() != 0)
            holding.push_back(folder);
    }
    EXPECT_THAT(folders, testing::UnorderedElementsAreArray(holding));
}

/// What a cache at rest holds; its ways of telling it have to agree, the books of folders included.
inline Contents checkedContents(const JobCombiningCMStatusCache& cache, const Path& root) {
    const auto listing = cache.listStatuses(root);
    const Contents contents(listing.states.begin(), listing.states.end());
    EXPECT_EQ(listing.states.size(), contents.size());
    EXPECT_EQ(cache.getCachedFiles().size(), contents.size());
    expectFoldersOf(
        contents, [&](const Path& folder) { return cache.getFolderSummary(folder); },
        cache.getFolders());
    return contents;
}

} // namespace quendo::test
