#pragma once

#include "host/Command.h"

#include <string>
#include <vector>

namespace quendo::host {

/// `quendo add`: puts files under source control; of a folder all that is untracked below it.
struct AddCommand : Command {
    std::vector<std::string> paths;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// `quendo remove`: takes files out of source control, and from the disk unless they were only
/// added.
struct RemoveCommand : Command {
    std::vector<std::string> files;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
