#pragma once

#include <string>

namespace quendo::host {

/// `quendo export`: writes a file as it was in a revision.
struct ExportCommand {
    std::string file;
    std::string revision;
    std::string target;
    bool json = false;

    void run() const;
};

} // namespace quendo::host
