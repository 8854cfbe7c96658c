#pragma once

#include "host/StatusPrinter.h"

#include <string>

namespace quendo::host {

/// `quendo watch`: the states at or below a folder, and then every change as it happens, until it
/// is interrupted. On standard error it says when it cannot tell: the working copy has gone, it
/// cannot be refreshed, or folders of it are not watched by the system.
struct WatchCommand {
    std::string folder = ".";
    bool json = false;
    StatusSelection selection;

    void run() const;
};

} // namespace quendo::host
