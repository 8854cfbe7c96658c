#pragma once

#include <map>
#include <string>
#include <string_view>

namespace quendo::git {

/// The settings of one configuration file that decide how a repository is laid out, by their full
/// lower-case names: "core.repositoryformatversion", "core.worktree", "core.bare" and
/// "extensions.…". Included files do not count for them.
struct FormatConfig {
    std::map<std::string, std::string> values;
    bool isRegular = true; ///< false when a line is not understood; git is to be asked then

    static FormatConfig parse(std::string_view text);

    const std::string* find(const std::string& name) const {
        const auto found = values.find(name);
        return found == values.end() ? nullptr : &found->second;
    }
};

} // namespace quendo::git
