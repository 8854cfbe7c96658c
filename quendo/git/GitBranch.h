#pragma once

#include "quendo/adapter/BranchInformation.h"

namespace quendo::git {

class GitRunner;

/// What the runner's working copy is on: the branch from git, an operation under way from the files
/// that it leaves in the metadata.
/// @throws as GitRunner::read, and as Repository::checkMetadataFiles
BranchState readBranchState(GitRunner& git);

} // namespace quendo::git
