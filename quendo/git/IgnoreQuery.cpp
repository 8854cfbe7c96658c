#include "quendo/git/IgnoreQuery.h"

#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/Repository.h"

// `git check-ignore` ends at the first path that it refuses, and does not print which one that is.
// It prints a record for every path before that one, though, when it is to print the paths that no
// rule matches as well (--non-matching). So the path after the last record is the refused one, and
// a further run continues behind it. A path is refused for the folder that it lies in: the other
// paths in that folder are not queried.

namespace quendo::git {
namespace {

constexpr std::size_t fieldsOfRecord = 4; // source, line, pattern, path

bool isAboutOnePath(const std::string& errors) {
    return errors.find("athspec '") != std::string::npos ||
           errors.find("outside repository") != std::string::npos;
}

/// The folder for which `path` was refused, with a slash at its end.
std::string refusedFolder(const std::string& path, const std::string& errors) {
    // "fatal: Pathspec './sub/x/file' is in submodule 'sub'"
    constexpr std::string_view before = "' is in submodule '";
    if (const auto found = errors.find(before); found != std::string::npos) {
        const auto start = found + before.size();
        auto folder = errors.substr(start, errors.find("'\n", start) - start) + "/";
        if (path.starts_with(folder))
            return folder;
    }
    return path.substr(0, path.rfind('/') + 1);
}

} // namespace

IgnoreAnswer queryIgnored(GitRunner& git, const std::vector<std::string>& paths, bool withIndex) {
    const auto& repository = git.repository();
    // Names are not taken literally here, so none may start with a colon.
    const auto start = repository.folder() == repository.root() ? "./" : repository.root() + "/";
    IgnoreAnswer answer;
    for (auto left = paths; !left.empty();) {
        GitRun run{.arguments = {"check-ignore", "-z", "--stdin", "--verbose", "--non-matching"},
                   .literalPathspecs = false};
        if (!withIndex)
            run.arguments.emplace_back("--no-index");
        for (const auto& path : left)
            run.input.append(start).append(path).push_back('\0');
        std::size_t done = 0, field = 0;
        bool isIgnored = false;
        NulSplitter splitter("check-ignore");
        run.consume = [&](std::string_view text) {
            splitter.feed(text, [&](std::string_view part) {
                constexpr std::size_t pattern = 2, path = 3;
                if (field == pattern)
                    isIgnored = !part.empty() && part.front() != '!';
                if (field == path) {
                    if (done == left.size() || part != start + left[done])
                        throwGarbage("check-ignore");
                    if (isIgnored)
                        answer.ignored.insert(left[done]);
                    ++done;
                }
                field = (field + 1) % fieldsOfRecord;
            });
        };
        const auto result = git.run({run}).front();
        constexpr int noneIgnored = 1, refusal = 128;
        if (result.exitCode == 0 || result.exitCode == noneIgnored) {
            if (done != left.size() || field != 0)
                throwGarbage("check-ignore");
            break;
        }
        // A failure that is not about one path (the configuration, the index) precedes any answer.
        if (result.exitCode != refusal || done == left.size() || !isAboutOnePath(result.errors))
            throwGitFailure(repository.root(), "check-ignore", result);
        const auto words = tellingWords(result.errors);
        const auto refused = left[done], folder = refusedFolder(refused, result.errors);
        left.erase(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(done));
        std::erase_if(left, [&](const std::string& path) {
            if (path != refused && (folder.empty() || !path.starts_with(folder)))
                return false;
            answer.refused.emplace(path, words);
            return true;
        });
    }
    return answer;
}

} // namespace quendo::git
