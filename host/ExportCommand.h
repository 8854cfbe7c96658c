#pragma once

#include "host/Command.h"

#include <string>

namespace quendo::host {

/// `quendo export`: writes a file as it was in a revision.
struct ExportCommand : Command {
    std::string file;
    std::string revision;
    std::string target;
    bool json = false;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
