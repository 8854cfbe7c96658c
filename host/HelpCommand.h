#pragma once

#include "host/Command.h"

#include <string>

namespace quendo::host {

/// `quendo help`: prints the help of the program or of one of its commands.
struct HelpCommand : Command {
    std::string topic; ///< a command; empty for the program
    std::string text;  ///< made when the program's commands are all known

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// The help of `command`, which may be `program` itself.
std::string helpOf(const CLI::App& program, const CLI::App& command);

} // namespace quendo::host
