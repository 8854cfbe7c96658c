#pragma once

#include "host/Command.h"

#include <string>

namespace quendo::host {

/// `quendo export`: writes a file as it was in a revision.
struct ExportCommand : Command {
    std::string file;
    std::string revision;
    std::string target; ///< "-" for standard output
    bool json = false;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;

private:
    void print() const; ///< to standard output
};

} // namespace quendo::host
