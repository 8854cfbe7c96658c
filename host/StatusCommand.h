#pragma once

#include "host/Command.h"
#include "host/StatusPrinter.h"

#include <string>

namespace quendo::host {

enum class StatusFormat { Human, Json, Porcelain, PorcelainNul };

/// `quendo status`: the states at or below a folder.
struct StatusCommand : Command {
    std::string folder = ".";
    StatusFormat format = StatusFormat::Human;
    StatusSelection selection;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
