#pragma once

#include "host/Command.h"

#include <string>
#include <vector>

namespace quendo::host {

/// `quendo revert`: gives the local changes of files up; of a folder those of all that is tracked
/// below it.
struct RevertCommand : Command {
    std::vector<std::string> paths;
    bool dryRun = false;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// `quendo discard`: gives all local changes of a working copy up.
struct DiscardCommand : Command {
    std::string path = "."; ///< anything in the working copy
    bool dryRun = false;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
