#pragma once

#include "host/Command.h"

#include <optional>
#include <string>

namespace quendo::host {

/// `quendo log`: the revisions of a file, a folder or the whole working copy, newest first.
struct LogCommand : Command {
    std::string path;         ///< empty for the whole working copy
    std::optional<int> limit; ///< positive
    bool json = false;
    bool noPager = false;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
