#pragma once

#include <optional>
#include <string>

namespace quendo::host {

/// `quendo log`: the revisions of a file, newest first.
struct LogCommand {
    std::string file;
    std::optional<int> limit; ///< positive
    bool json = false;

    void run() const;
};

} // namespace quendo::host
