#pragma once

#include <string>
#include <string_view>

namespace quendo::git {

class Repository;
struct ChildResult;

/// What went wrong, out of what git printed for people: the last line that git marks as fatal, else
/// the last marked as an error, else the last lines, which are those of a hook or a filter. One
/// line, valid UTF-8.
std::string tellingWords(const std::string& errors);

/// Turns a git that failed into the error that says what to do, in git's own words where they
/// help. One line, valid UTF-8.
/// @param folder the working copy that git ran in, native
[[noreturn]] void throwGitFailure(const std::string& folder, std::string_view command,
                                  const ChildResult& result);

/// For a git that hung: looks for what it may have waited for.
[[noreturn]] void throwGitStalled(const Repository& repository, std::string_view command,
                                  bool onFifo);

/// For a git whose output is not what git prints.
[[noreturn]] void throwGarbage(std::string_view command);

} // namespace quendo::git
