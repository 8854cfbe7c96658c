#pragma once

#include "host/Command.h"

#include <string>
#include <vector>

namespace quendo::host {

/// `quendo ignore`: adds ignore rules for exactly these files and folders.
struct IgnoreCommand : Command {
    std::vector<std::string> paths;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
