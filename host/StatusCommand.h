#pragma once

#include "host/StatusPrinter.h"

#include <string>

namespace quendo::host {

enum class StatusFormat { Human, Json, Porcelain, PorcelainNul };

/// `quendo status`: the states at or below a folder.
struct StatusCommand {
    std::string folder = ".";
    StatusFormat format = StatusFormat::Human;
    StatusSelection selection;

    void run() const;
};

} // namespace quendo::host
