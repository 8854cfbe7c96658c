#pragma once

#include "host/Command.h"

#include <optional>
#include <string>
#include <vector>

namespace quendo::host {

/// `quendo checkin`: commits files as they are on disk; of a folder all that is tracked below it.
struct CheckinCommand : Command {
    std::vector<std::string> paths;
    std::optional<std::string> message;     ///< native bytes; either this
    std::optional<std::string> messageFile; ///< or this, "-" for standard input
    bool replaceStaged = false; ///< commit also what is staged with other content than on disk

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// `quendo resolve`: marks conflicted files as resolved, as they are on disk.
struct ResolveCommand : Command {
    std::vector<std::string> files;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
