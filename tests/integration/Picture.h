#pragma once

#include "tests/support/GitSandbox.h"

#include <filesystem>
#include <map>
#include <string>
#include <unistd.h>

namespace quendo::test {

/// All that an operation may change, but for what git keeps for itself.
struct Picture {
    Picture(const GitSandbox& sandbox, const std::filesystem::path& root) {
        namespace fs = std::filesystem;
        git = sandbox
                  .run({"sh", "-c",
                        "git ls-files -s; git rev-parse -q --verify HEAD; cat .git/HEAD;"
                        "ls .git | grep -e _HEAD -e lock -e rebase -e sequencer;"
                        "ls -A .git/quendo 2>/dev/null"},
                       root)
                  .output;
        const auto skip = fs::directory_options::skip_permission_denied;
        std::error_code unseen;
        for (auto at = fs::recursive_directory_iterator(root, skip); at != fs::end(at);
             at.increment(unseen)) {
            const auto name = at->path().lexically_relative(root).native();
            const auto status = at->symlink_status(unseen);
            const auto mode = std::to_string(static_cast<int>(status.permissions()));
            if (name == ".git")
                at.disable_recursion_pending();
            else if (fs::is_symlink(status))
                disk[name] = "link " + fs::read_symlink(at->path()).native();
            else if (fs::is_regular_file(status))
                disk[name] = mode + " " +
                             (::access(at->path().c_str(), R_OK) == 0 ? readFile(at->path()) : "");
            else
                disk[name] = "folder " + mode;
        }
    }
    std::string changeTo(const Picture& later) const {
        std::string text = git == later.git ? "" : git + "became\n" + later.git;
        for (const auto& [name, what] : disk)
            if (const auto found = later.disk.find(name);
                found == later.disk.end() || found->second != what)
                text += name + " was " + what.substr(0, 80) +
                        (found == later.disk.end() ? ", gone\n" : "\n");
        for (const auto& [name, what] : later.disk)
            if (!disk.contains(name))
                text += name + " is new: " + what.substr(0, 80) + "\n";
        return text;
    }
    std::string git;
    std::map<std::string, std::string> disk;
};

} // namespace quendo::test
