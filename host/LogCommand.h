#pragma once

#include "host/Command.h"

#include <optional>
#include <string>

namespace quendo::host {

/// `quendo log`: the revisions of a file, newest first.
struct LogCommand : Command {
    std::string file;
    std::optional<int> limit; ///< positive
    bool json = false;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
