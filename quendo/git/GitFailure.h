#pragma once

#include <chrono>
#include <cstdint>
#include <set>
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

/// Something that may have made git use more than it may.
struct Suspect {
    std::string file;        ///< absolute, native; empty when nothing was found
    std::string description; ///< for a message: "; look for …", never empty
};

/// Looks for what may have made git use more of the processor or of memory than it may: rules with
/// many wildcards, files of rules of an absurd size, very large files. Takes a second at the most.
/// @param root of the working copy, native
/// @param metadata holds info/exclude
Suspect findSuspect(const std::string& root, const std::string& metadata);

/// For a git that used more of the processor than it may, with all that it had started.
/// @param filters names of the user's filters that it ran and that did not come to an end, if any
[[noreturn]] void throwOverProcessorBound(const Repository& repository, std::string_view command,
                                          std::chrono::milliseconds bound,
                                          const std::set<std::string>& filters,
                                          const Suspect& suspect);

/// For a git that printed more than its index and files can explain.
[[noreturn]] void throwTooMuchOutput(const Repository& repository, std::string_view command,
                                     std::uint64_t bound);

/// For a filter of the user's that gave no sign of life.
[[noreturn]] void throwFilterStalled(const Repository& repository, std::string_view command,
                                     const std::set<std::string>& filters);

/// Whether a git ended because it could get no more memory.
bool ranOutOfMemory(const ChildResult& result);

/// For an index that git reads although it cannot be right.
[[noreturn]] void throwDamagedIndex(const std::string& folder, std::string_view what);

/// For a git whose output is not what git prints.
[[noreturn]] void throwGarbage(std::string_view command);

} // namespace quendo::git
