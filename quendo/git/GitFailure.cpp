#include "quendo/git/GitFailure.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/ChildProcess.h"
#include "quendo/git/Repository.h"
#include "quendo/platform/UString.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>

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

} // namespace

std::string tellingWords(const std::string& errors) {
    constexpr std::size_t mostLines = 3;
    std::string fatal, error;
    std::vector<std::string> last;
    for (std::size_t start = 0; start < errors.size();) {
        const auto end = std::min(errors.find_first_of("\r\n", start), errors.size());
        const auto line = errors.substr(start, end - start);
        if (line.starts_with("fatal: "))
            fatal = line.substr(7);
        else if (line.starts_with("error: "))
            error = line.substr(7);
        if (line.find_first_not_of(" \t") != std::string::npos)
            last.push_back(line);
        if (last.size() > mostLines)
            last.erase(last.begin());
        start = end + 1;
    }
    std::string words = !fatal.empty() ? fatal : error;
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
    if (saysAny("Expected git repo version", "unknown repository extension",
                "repository extension found", "extension, which we do not understand",
                "index uses ", "unknown repository storage"))
        throw exception::UnsupportedFormatError(root + " needs a newer git than yours: " + words);
    if (saysAny("ut of memory", "memory exhausted", "mmap failed") || result.exitCode == 137)
        throw exception::DamagedRepositoryError(
            "git needed too much memory for " + root +
            " and was stopped; look for a metadata or ignore file of an absurd size");
    if (saysAny("not a git repository", "index file corrupt", "bad signature", "bad index",
                "index file smaller", "index file open failed", "bad config", "unable to read tree",
                "bad object", "bad tree", "could not parse HEAD", "unable to parse",
                "unordered stage entries", "is corrupt", "invalid gitfile", "cannot read object",
                "missing object", "malformed index", "unexpected line", "bad numeric config",
                "unable to resolve", "your current branch appears to be broken",
                "No such ref: HEAD"))
        throw exception::DamagedRepositoryError(root + " is damaged: " + words);
    if (result.exitCode > 128)
        throw exception::ToolError("git " + std::string(command) + " was ended by signal " +
                                   std::to_string(result.exitCode - 128) + " in " + root);
    throw exception::OperationFailedError(
        "git " + std::string(command) + " failed in " + root + ": " +
        (words.empty() ? "exit code " + std::to_string(result.exitCode) : words));
}

void throwGitStalled(const Repository& repository, std::string_view command, bool onFifo) {
    auto fifo = findFifo(repository.root(), false);
    if (!fifo)
        fifo = findFifo(repository.gitDir(), true);
    if (fifo)
        throw exception::DamagedRepositoryError(Path::fromNative(fifo->native()).toUtf8() +
                                                " is a FIFO where Git reads a file; replace it");
    const std::string what =
        "git " + std::string(command) + " hangs in " + repository.rootPath().toUtf8();
    if (onFifo)
        throw exception::DamagedRepositoryError(
            what + ": it waits for a FIFO; look for one among the files that Git's "
                   "configuration names");
    throw exception::ToolError(what + " and was ended; try it by hand");
}

void throwGarbage(std::string_view command) {
    throw exception::ToolError(
        "git " + std::string(command) +
        " printed what git does not print; check which git is first in PATH");
}

} // namespace quendo::git
