#pragma once

#include "quendo/adapter/BranchInformation.h"
#include "quendo/platform/Path.h"

#include <string>

namespace quendo {
class CMAdapter;
}

namespace quendo::host {

/// The adapter's BranchInformation; null when it does not offer one.
BranchInformation* branchInformationOf(CMAdapter& adapter);

/// The branch with its upstream, and the operation in progress with the commands that end it: a
/// line each, safe to show on a terminal.
std::string humanBranch(const BranchState& state, bool colours);

/// "a rebase of topic is in progress, step 2 of 5: ..." with the commands that end it; empty
/// without an operation.
/// @param isStill it has outlasted a command that might have ended it
std::string operationNotice(const BranchState& state, bool isStill = false);

/// One object on a line, with null for what is not there.
std::string jsonBranch(const BranchState& state, const Path& root, const std::string& system);

} // namespace quendo::host
