#pragma once

#include "host/Command.h"

#include <string>

namespace quendo::host {

/// `quendo completion`: prints a shell's completion script.
struct CompletionCommand : Command {
    std::string shell;
    std::string script; ///< made when the program's commands are all known

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
