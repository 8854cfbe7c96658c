#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/platform/Path.h"
#include "tests/support/GitSandbox.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace quendo::test {

/// What a cache holds otherwise than a fresh query of its root answers; empty when it agrees. A
/// folder without files is answered when it is asked for, but in no folder's answer.
/// @param paths gets those that differ
std::string differences(const std::map<Path, FileState>& cached,
                        const std::map<Path, FileState>& asked, std::set<Path>* paths = nullptr);

/// "XY path" of each record that is not plain, sorted; blank columns as '.'.
std::vector<std::string> recordsOf(const std::map<Path, FileState>& states, const Path& root);
std::vector<std::string> recordsOfGit(const GitSandbox& sandbox);

} // namespace quendo::test
