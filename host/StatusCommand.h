#pragma once

#include "host/Command.h"
#include "host/StatusPrinter.h"

#include <string>
#include <vector>

namespace quendo::host {

enum class StatusFormat { Human, Json, Porcelain, PorcelainNul };

/// `quendo status`: the states of files, and of what lies at or below folders, in one or several
/// working copies.
struct StatusCommand : Command {
    std::vector<std::string> paths = {"."};
    StatusFormat format = StatusFormat::Human;
    StatusSelection selection;
    bool branch = false; ///< in JSON as well

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
