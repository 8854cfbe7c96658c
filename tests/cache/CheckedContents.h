#pragma once

#include "quendo/cache/JobCombiningCMStatusCache.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace quendo::test {

using Contents = std::map<Path, FileState>;

/// What a cache at rest holds; its ways of telling it have to agree, the books of folders included.
inline Contents checkedContents(const JobCombiningCMStatusCache& cache, const Path& root) {
    const auto listing = cache.listStatuses(root);
    const Contents contents(listing.states.begin(), listing.states.end());
    EXPECT_EQ(listing.states.size(), contents.size());
    EXPECT_EQ(cache.getCachedFiles().size(), contents.size());
    std::map<Path, FolderSummary> summaries;
    for (const auto& [path, state] : contents) {
        ++summaries[path.parentPath()].direct[state.getState()];
        for (Path folder = path; !folder.empty();)
            ++summaries[folder = folder.parentPath()].below[state.getState()];
    }
    std::multiset<Path> parents;
    for (const auto& [folder, summary] : summaries) {
        EXPECT_EQ(cache.getFolderSummary(folder), summary) << folder;
        if (summary.direct.total() != 0)
            parents.insert(folder);
    }
    const auto listed = cache.getFolders();
    EXPECT_EQ(std::multiset<Path>(listed.begin(), listed.end()), parents);
    return contents;
}

} // namespace quendo::test
