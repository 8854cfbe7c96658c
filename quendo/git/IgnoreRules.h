#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

/// The rule that ignores exactly this path, for a rules file in the folder above all of `path`.
/// @throws exception::OperationFailedError for a name that no rule can name: one with a line end
std::string ignoreRuleFor(std::string_view path, bool isFolder);

/// Adds rules to ".gitignore" in the folder `root`, at the end, in one step: the file has all of
/// them, or is as it was. Its mode and its kind of line ends stay.
/// @param root a descriptor
/// @param rules from ignoreRuleFor()
/// @param shown the file's name for messages
/// @throws exception::OperationFailedError when it cannot be read or written, or is not a file
void addIgnoreRules(int root, const std::vector<std::string>& rules, const std::string& shown);

} // namespace quendo::git
