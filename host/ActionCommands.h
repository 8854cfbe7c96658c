#pragma once

#include <string>
#include <vector>

namespace quendo::host {

/// `quendo add`: puts files under source control; of a folder all that is untracked below it.
struct AddCommand {
    std::vector<std::string> paths;

    void run() const;
};

/// `quendo remove`: takes files out of source control, and from the disk unless they were only
/// added.
struct RemoveCommand {
    std::vector<std::string> files;

    void run() const;
};

} // namespace quendo::host
