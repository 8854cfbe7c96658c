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
/// added; of a folder all that is tracked below it.
struct RemoveCommand : Command {
    std::vector<std::string> paths;
    bool dryRun = false;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// `quendo move`: moves a file or a folder, also into a folder that is there.
struct MoveCommand : Command {
    std::string source;
    std::string destination;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// `quendo lock`: makes files ready for change.
struct LockCommand : Command {
    std::vector<std::string> files;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// `quendo ignore`: adds ignore rules for exactly these files and folders.
struct IgnoreCommand : Command {
    std::vector<std::string> paths;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
