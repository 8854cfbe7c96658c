#pragma once

#include <string>
#include <vector>

namespace quendo::host {

/// `quendo untracked`: the files below a folder that are not under source control.
struct UntrackedCommand {
    std::string folder = ".";
    bool json = false;
    bool nul = false; ///< raw paths from the root, each ended by a NUL

    void run() const;
};

/// `quendo clients`: what the library lists about the working copies that hold these folders.
struct ClientsCommand {
    std::vector<std::string> folders;

    void run() const;
};

} // namespace quendo::host
