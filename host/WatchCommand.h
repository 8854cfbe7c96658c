#pragma once

#include "host/Command.h"
#include "host/StatusPrinter.h"

#include <string>

namespace quendo::host {

/// `quendo watch`: the states at or below a folder with the branch, and then every change as it
/// happens, until it is interrupted or nobody reads its output. On standard error it says when it
/// cannot tell: the working copy has gone, it cannot be refreshed, or folders of it are not watched
/// by the system.
struct WatchCommand : Command {
    std::string folder = ".";
    bool json = false;
    bool branch = false; ///< in JSON as well
    bool stale = false;  ///< in JSON as well
    bool debug = false;  ///< describes the folder on SIGUSR1
    StatusSelection selection;

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
