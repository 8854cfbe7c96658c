#include "quendo/git/GitFailure.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/ChildProcess.h"
#include "quendo/git/NamedFiles.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SmallFile.h"
#include "quendo/platform/UString.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>
#include <system_error>

namespace quendo::git {
namespace {

namespace fs = std::filesystem;

// Only after git hung, so the walk may cost something; it follows no links and gives up in time.
std::optional<fs::path> findFifo(const fs::path& folder, bool anyName) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    std::error_code error;
    for (fs::recursive_directory_iterator
             it(folder, fs::directory_options::skip_permission_denied, error),
         end;
         !error && it != end && std::chrono::steady_clock::now() < deadline; it.increment(error)) {
        const auto name = it->path().filename();
        // The repository's own metadata are looked through apart; those of others in it here.
        if (name == "objects" || (name == ".git" && it.depth() == 0))
            it.disable_recursion_pending();
        const bool isRead = anyName || name == ".gitignore" || name == ".gitattributes" ||
                            name == ".gitmodules" || name == ".git" ||
                            it->path().native().find("/.git/") != std::string::npos;
        std::error_code ignored;
        if (isRead && fs::is_fifo(it->status(ignored)))
            return it->path();
    }
    return std::nullopt;
}

// Each star may match any number of characters, and git tries all combinations.
constexpr int suspectStars = 6;
constexpr std::uintmax_t suspectRules = 16U << 20U; // bytes
constexpr std::uintmax_t suspectFile = std::uintmax_t{4} << 30U;

/// The most stars in a line of a file of rules, not counting one right behind another.
int mostStars(const std::string& rules) {
    int most = 0, stars = 0;
    char previous = '\n';
    for (const char one : rules) {
        if (one == '\n')
            stars = 0;
        else if (one == '*' && previous != '*')
            most = std::max(most, ++stars);
        previous = one;
    }
    return most;
}

std::string inSeconds(std::chrono::milliseconds time) {
    const auto tenths = time.count() / 100;
    return std::to_string(tenths / 10) +
           (tenths % 10 == 0 ? "" : "." + std::to_string(tenths % 10)) + " s";
}

/// "the filter 'a'", "the filters 'a', 'b'"
std::string namesOf(const std::set<std::string>& filters) {
    std::string text = filters.size() == 1 ? "the filter" : "the filters";
    for (const auto& name : filters)
        text += (&name == &*filters.begin() ? " '" : ", '") + toUtf8(toUString(name)) + "'";
    return text;
}

// "error: index uses XXXX extension, which we do not understand"
std::string_view unknownIndexExtension(std::string_view errors) {
    constexpr std::string_view before = "index uses ", after = " extension";
    const auto start = errors.find(before);
    const auto end = start == std::string_view::npos ? start : errors.find(after, start);
    return end == std::string_view::npos
               ? std::string_view()
               : errors.substr(start + before.size(), end - start - before.size());
}

bool isLetter(char one) {
    return (one >= 'a' && one <= 'z') || (one >= 'A' && one <= 'Z');
}

constexpr const char* rebuildIndex =
    "; if nothing else helps, move the file 'index' out of the Git folder and run git reset, which "
    "rebuilds it";

constexpr const char* runFsck = "; git fsck lists what is missing or broken";

constexpr const char* noMoreProcesses =
    "the system allows no further process or thread (see ulimit -u, and pids.max of the control "
    "group): end some, or raise the limit";

std::string reachedLimit(int error) {
    return error == EAGAIN   ? std::string("; ") + noMoreProcesses
           : error == EMFILE ? "; this process has too many files open (ulimit -n)"
           : error == ENFILE ? "; the system has too many files open"
                             : "";
}

// "bad config line 3 in file <file>", "bad numeric config value 'x' for 'a.b' in file <file>: …"
[[noreturn]] void throwBadConfiguration(const std::string& folder, const std::string& words) {
    constexpr std::string_view before = " in file ";
    const auto start = words.find(before);
    const auto file = start == std::string::npos ? "" : words.substr(start + before.size());
    const auto message = "Git cannot read its configuration for " +
                         Path::fromNative(folder).toUtf8() + ": " + words +
                         (file.empty() ? "; git config --list --show-origin shows where it is set"
                                       : "; correct that file");
    // git names the repository's own files relative to its root.
    if (file.starts_with('/') && !file.starts_with(folder + "/") &&
        file.find("/.git/") == std::string::npos)
        throw exception::ToolError(message);
    throw exception::DamagedRepositoryError(message);
}

} // namespace

std::string tellingWords(const std::string& errors) {
    constexpr std::size_t mostLines = 3;
    std::string fatal, error, first;
    std::vector<std::string> last;
    for (std::size_t start = 0; start < errors.size();) {
        const auto end = std::min(errors.find_first_of("\r\n", start), errors.size());
        const auto line = errors.substr(start, end - start);
        if (line.starts_with("fatal: "))
            fatal = line.substr(7);
        else if (line.starts_with("BUG: "))
            fatal = line;
        else if (line.starts_with("error: "))
            error = line.substr(7);
        if (first.empty())
            first = !fatal.empty() ? fatal : error;
        if (line.find_first_not_of(" \t") != std::string::npos)
            last.push_back(line);
        if (last.size() > mostLines)
            last.erase(last.begin());
        start = end + 1;
    }
    std::string words = !fatal.empty() ? fatal : error;
    // git reports the cause first and what it made of it last.
    if (words.find(first) == std::string::npos)
        words += ": " + first;
    if (words.empty())
        for (const auto& line : last)
            words += (words.empty() ? "" : "; ") + line;
    return toUtf8(toUString(words));
}

void throwGitFailure(const std::string& folder, std::string_view command,
                     const ChildResult& result) {
    const std::string& errors = result.errors;
    const auto says = [&](std::string_view words) {
        return errors.find(words) != std::string::npos;
    };
    const auto saysAny = [&](auto... words) { return (says(words) || ...); };
    const std::string root = Path::fromNative(folder).toUtf8();
    if (says("detected dubious ownership"))
        throw exception::ForeignOwnerError(
            root +
            " belongs to another user, so Git does not trust it; if you do, run: "
            "git config --global --add safe.directory " +
            root);
    const std::string words = tellingWords(errors);
    if (const auto extension = unknownIndexExtension(errors);
        saysAny("Expected git repo version", "unknown repository extension",
                "repository extension found", "unknown repository storage") ||
        (extension.size() == 4 && std::ranges::all_of(extension, isLetter)))
        throw exception::UnsupportedFormatError(root + " needs a newer git than yours: " + words);
    if (saysAny("bad config", " config value "))
        throwBadConfiguration(folder, words);
    if (ranOutOfMemory(result))
        throw exception::DamagedRepositoryError("git " + std::string(command) +
                                                " ran out of memory in " + root + ": " + words +
                                                findSuspect(folder, folder + "/.git").description +
                                                "; a damaged object may be the cause as well");
    if (saysAny("from promisor remote", "lazy fetching disabled"))
        throw exception::OperationFailedError(
            root + " is a partial clone that lacks what git " + std::string(command) +
            " needs, and reading fetches nothing: " + words + "; run the same with git");
    // Of a fetch: the server's words, or why it was not asked.
    if (saysAny("' not allowed", "unable to access '", "Could not read from remote repository",
                "no credentials were given for", "could not fetch "))
        throwCommandFailure(folder, command, result);
    if (says("Resource temporarily unavailable"))
        throw exception::ToolError("git " + std::string(command) + " failed in " + root + ": " +
                                   words + "; " + noMoreProcesses);
    if (saysAny("index file corrupt", "bad signature", "bad index", "index file smaller",
                "index file open failed", "unordered stage entries", "multiple stage entries",
                "malformed index", "unknown index entry format",
                "malformed name field in the index", "broken index", "corrupted cache-tree",
                "index uses ") ||
        (result.signal == SIGABRT && saysAny("BUG: ", "Assertion `")))
        throw exception::DamagedRepositoryError(root + " is damaged: " + words +
                                                (says("ermission denied") ? "" : rebuildIndex));
    if (saysAny("unable to read ", "bad object", "bad tree", "could not parse HEAD",
                "unable to parse", "is corrupt", "cannot read object", "missing object",
                "malformed mode in tree", "empty filename in tree", "too-short tree",
                "invalid object type", "loose object", "packed object", "failed to read object",
                "pack has bad", "packfile", "unable to unpack", "object file ", "hash mismatch",
                "not a commit", "not a tree", "does not match index", "bogus commit",
                "bad offset for revindex"))
        throw exception::DamagedRepositoryError(root + " is damaged: " + words +
                                                (says("ermission denied") ? "" : runFsck));
    if (saysAny("not a git repository", "invalid gitfile", "unexpected line", "unable to resolve",
                "your current branch appears to be broken", "No such ref: HEAD"))
        throw exception::DamagedRepositoryError(root + " is damaged: " + words);
    throwCommandFailure(folder, command, result);
}

void throwCommandFailure(const std::string& folder, std::string_view command,
                         const ChildResult& result) {
    const auto message = "git " + std::string(command) + " failed in " +
                         Path::fromNative(folder).toUtf8() + ": " + describeEnd(result);
    if (result.signal != 0)
        throw exception::ToolError(message);
    throw exception::OperationFailedError(message);
}

std::string describeEnd(const ChildResult& result) {
    const auto words = tellingWords(result.errors);
    if (result.signal == SIGKILL)
        return "it was killed, by another process or by the system when it ran out of memory; try "
               "again";
    if (result.signal != 0) {
        const char* name = ::sigdescr_np(result.signal);
        return "signal " + std::to_string(result.signal) + " ended it (" +
               (name != nullptr ? name : "unknown") + ")" + (words.empty() ? "" : ": " + words);
    }
    return words.empty() ? "it exited with code " + std::to_string(result.exitCode) : words;
}

void throwCannotStart(const std::string& what, const std::system_error& error) {
    throw exception::ToolError(what + " cannot be started: " + error.code().message() +
                               reachedLimit(error.code().value()));
}

void throwCannotEnter(const Path& folder, int error) {
    const auto message = folder.toUtf8() +
                         " cannot be entered: " + std::generic_category().message(error) +
                         reachedLimit(error);
    if (error == EMFILE || error == ENFILE)
        throw exception::ToolError(message);
    throw exception::OperationFailedError(message);
}

void throwGitStalled(const Repository& repository, std::string_view command, bool onFifo) {
    const auto replaceIt = [](const fs::path& fifo) {
        return Path::fromNative(fifo.native()).toUtf8() +
               " is a FIFO where Git reads a file; replace it";
    };
    for (const auto& file : configurationOfUser())
        if (std::error_code ignored; fs::is_fifo(fs::status(file, ignored)))
            throw exception::ToolError(replaceIt(file));
    auto fifo = findFifo(repository.root(), false);
    if (!fifo)
        fifo = findFifo(repository.gitDir(), true);
    if (fifo)
        throw exception::DamagedRepositoryError(replaceIt(*fifo));
    const std::string what =
        "git " + std::string(command) + " hangs in " + repository.rootPath().toUtf8();
    if (onFifo)
        throw exception::DamagedRepositoryError(
            what + ": it waits for a FIFO; look for one among the files that Git's "
                   "configuration names");
    throw exception::ToolError(what + " and was ended; try it by hand");
}

Suspect findSuspect(const std::string& root, const std::string& metadata) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    Suspect suspect, largest;
    std::uintmax_t largestSize = suspectFile;
    int worst = suspectStars - 1;
    const auto look = [&](const fs::path& file, bool isRules) {
        std::error_code error;
        if (!fs::is_regular_file(fs::symlink_status(file, error)))
            return;
        const auto size = fs::file_size(file, error);
        if (error)
            return;
        const auto name = Path::fromNative(file.native()).toUtf8();
        const auto hasSize = name + " has " + std::to_string(size) + " bytes";
        if (size > largestSize) {
            largestSize = size;
            largest = {file.native(), "; " + hasSize};
        }
        if (!isRules)
            return;
        if (size > suspectRules) {
            worst = std::numeric_limits<int>::max();
            suspect = {file.native(), "; " + hasSize + ": make it smaller"};
        }
        const auto stars = mostStars(readSmallFile(file.native(), suspectRules).value_or(""));
        if (stars > worst) {
            worst = stars;
            suspect = {file.native(), "; " + name + " has a pattern with " + std::to_string(stars) +
                                          " stars, which takes git very long to match: make it "
                                          "simpler"};
        }
    };
    for (const char* name : {"/info/exclude", "/info/attributes"})
        look(metadata + name, true);
    std::error_code error;
    for (fs::recursive_directory_iterator
             it(root, fs::directory_options::skip_permission_denied, error),
         end;
         !error && it != end && std::chrono::steady_clock::now() < deadline; it.increment(error)) {
        const auto name = it->path().filename();
        if (name == ".git")
            it.disable_recursion_pending();
        else
            look(it->path(), name == ".gitignore" || name == ".gitattributes");
    }
    if (!suspect.file.empty())
        return suspect;
    if (!largest.file.empty())
        return largest;
    return {"", "; look for ignore and attributes files with many wildcards in a pattern, and for "
                "very large files"};
}

bool ranOutOfMemory(const ChildResult& result) {
    return result.exitCode != 0 &&
           std::ranges::any_of(
               std::initializer_list<std::string_view>{"ut of memory", "memory exhausted",
                                                       "Cannot allocate memory"},
               [&](auto words) { return result.errors.find(words) != std::string::npos; });
}

void throwOverProcessorBound(const Repository& repository, std::string_view command,
                             std::chrono::milliseconds bound, const std::set<std::string>& filters,
                             const Suspect& suspect) {
    auto message = "git " + std::string(command) + " in " + repository.rootPath().toUtf8() +
                   " used more than " + inSeconds(bound) + " of processor time and was ended";
    if (!filters.empty())
        throw exception::ToolError(message + "; it ran " + namesOf(filters) +
                                   " of your own configuration");
    if (command == "config")
        throw exception::DamagedRepositoryError(
            message + "; look for configuration files that include each other, or that are very "
                      "large, with git config --list --show-origin");
    throw exception::DamagedRepositoryError(message + suspect.description);
}

void throwTooMuchOutput(const Repository& repository, std::string_view command,
                        std::uint64_t bound) {
    throw exception::DamagedRepositoryError(
        "git " + std::string(command) + " in " + repository.rootPath().toUtf8() +
        " printed more than " + std::to_string(bound) +
        " bytes and was ended: that is more than its index and a sane number of untracked files "
        "explain; look for a folder with a great many untracked files, and ignore it, or for a "
        "damaged commit");
}

void throwFilterStalled(const Repository& repository, std::string_view command,
                        const std::set<std::string>& filters) {
    throw exception::ToolError("git " + std::string(command) + " hangs in " +
                               repository.rootPath().toUtf8() +
                               " and was ended: " + namesOf(filters) +
                               " of your own configuration gave no sign of life; try it by hand");
}

void throwDamagedIndex(const std::string& folder, std::string_view what) {
    throw exception::DamagedRepositoryError(Path::fromNative(folder).toUtf8() +
                                            " is damaged: its index holds " + std::string(what) +
                                            rebuildIndex);
}

void throwGarbage(std::string_view command) {
    throw exception::ToolError(
        "git " + std::string(command) +
        " printed what git does not print; check which git is first in PATH");
}

} // namespace quendo::git
