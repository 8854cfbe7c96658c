#pragma once

#include <functional>
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

    /// @param each is called with every setting of the file, whatever it decides; the section is as
    ///        it stands between the brackets, in lower case
    static FormatConfig
    parse(std::string_view text,
          const std::function<void(const std::string& section, const std::string& name,
                                   const std::string& value)>& each = {});

    const std::string* find(const std::string& name) const {
        const auto found = values.find(name);
        return found == values.end() ? nullptr : &found->second;
    }
};

} // namespace quendo::git
