#pragma once

#include "host/Command.h"

#include <string>
#include <vector>

namespace quendo::host {

/// `quendo untracked`: the files below a folder that are not under source control.
struct UntrackedCommand : Command {
    std::string folder = ".";
    bool json = false;
    bool nul = false; ///< raw paths from the root, each ended by a NUL

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

/// `quendo clients`: what the library lists about the working copies that hold these folders.
struct ClientsCommand : Command {
    std::vector<std::string> folders = {"."};

    CLI::App* describe(CLI::App& program) override;
    void run() const override;
};

} // namespace quendo::host
