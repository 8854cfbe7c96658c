#pragma once

#include <string>
#include <string_view>

namespace quendo::git {

/// The rule that ignores exactly this path, for a rules file in the folder above all of `path`.
/// @throws exception::OperationFailedError for a name that no rule can name: one with a line end
std::string ignoreRuleFor(std::string_view path, bool isFolder);

/// Adds that rule to ".gitignore" in the folder `root`, at the end, in one step: the file is there
/// as it was or with the rule. Its mode and its kind of line ends stay.
/// @param root a descriptor
/// @param shown the file's name for messages
/// @throws exception::OperationFailedError when it cannot be read or written, or is not a file
void addIgnoreRule(int root, std::string_view path, bool isFolder, const std::string& shown);

} // namespace quendo::git
