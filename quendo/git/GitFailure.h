#pragma once

#include <string>
#include <string_view>
#include <system_error>

namespace quendo {
class Path;
}

namespace quendo::git {

class Repository;
struct ChildResult;

/// What went wrong, out of what git printed for people: the last line that git marks as fatal, else
/// the last marked as an error, with the first error behind it, which is the cause; else the last
/// lines, which are those of a hook or a filter. One line, valid UTF-8.
std::string tellingWords(const std::string& errors);

/// How a program that failed ended: in its own words if it printed any, else by which signal or
/// exit code.
std::string describeEnd(const ChildResult& result);

/// Turns a git that failed into the error that says what to do, in git's own words where they
/// help. One line, valid UTF-8.
/// @param folder the working copy that git ran in, native
[[noreturn]] void throwGitFailure(const std::string& folder, std::string_view command,
                                  const ChildResult& result);

/// The same for a git whose words may be those of a hook or a filter: they are passed on, and do
/// not say what is wrong with the repository.
[[noreturn]] void throwCommandFailure(const std::string& folder, std::string_view command,
                                      const ChildResult& result);

/// For a program or an operation that the system did not let start.
/// @throws exception::ToolError with the limit that was reached, if one was
[[noreturn]] void throwCannotStart(const std::string& what, const std::system_error& error);

/// For a folder of the working copy that the system did not let open.
/// @throws exception::ToolError with the limit that was reached, if one was; else
///         OperationFailedError with the system's words for `error`, an errno
[[noreturn]] void throwCannotEnter(const Path& folder, int error);

/// For a git that hung: looks for what it may have waited for.
[[noreturn]] void throwGitStalled(const Repository& repository, std::string_view command,
                                  bool onFifo);

/// For an index that git reads although it cannot be right.
[[noreturn]] void throwDamagedIndex(const std::string& folder, std::string_view what);

/// For a git whose output is not what git prints.
[[noreturn]] void throwGarbage(std::string_view command);

} // namespace quendo::git
