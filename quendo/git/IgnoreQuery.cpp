#include "quendo/git/IgnoreQuery.h"

#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/Repository.h"

// `git check-ignore` ends at the first path that it refuses, and does not print which one that is.
// It prints a record for every path before that one, though, when it is to print the paths that no
// rule matches as well (--non-matching). So the path after the last record is the refused one, and
// a further run continues behind it.

namespace quendo::git {
namespace {

constexpr std::size_t fieldsOfRecord = 4; // source, line, pattern, path

bool isAboutOnePath(const std::string& errors) {
    return errors.find("athspec '") != std::string::npos ||
           errors.find("outside repository") != std::string::npos;
}

} // namespace

IgnoreAnswer queryIgnored(GitRunner& git, const std::vector<std::string>& paths, bool withIndex) {
    const auto& repository = git.repository();
    // Names are not taken literally here, so none may start with a colon.
    const auto start = repository.folder() == repository.root() ? "./" : repository.root() + "/";
    IgnoreAnswer answer;
    for (std::size_t done = 0; done < paths.size();) {
        GitRun run{.arguments = {"check-ignore", "-z", "--stdin", "--verbose", "--non-matching"},
                   .literalPathspecs = false};
        if (!withIndex)
            run.arguments.emplace_back("--no-index");
        for (std::size_t i = done; i < paths.size(); ++i)
            run.input.append(start).append(paths[i]).push_back('\0');
        std::size_t field = 0;
        bool isIgnored = false;
        NulSplitter splitter("check-ignore");
        run.consume = [&](std::string_view text) {
            splitter.feed(text, [&](std::string_view part) {
                constexpr std::size_t pattern = 2, path = 3;
                if (field == pattern)
                    isIgnored = !part.empty() && part.front() != '!';
                if (field == path) {
                    if (done == paths.size() || part != start + paths[done])
                        throwGarbage("check-ignore");
                    if (isIgnored)
                        answer.ignored.insert(paths[done]);
                    ++done;
                }
                field = (field + 1) % fieldsOfRecord;
            });
        };
        const auto result = git.run({run}).front();
        constexpr int noneIgnored = 1, refusal = 128;
        if (result.exitCode == 0 || result.exitCode == noneIgnored) {
            if (done != paths.size() || field != 0)
                throwGarbage("check-ignore");
            continue;
        }
        // A failure that is not about one path (the configuration, the index) precedes any answer.
        if (result.exitCode != refusal || done == paths.size() || !isAboutOnePath(result.errors))
            throwGitFailure(repository.root(), "check-ignore", result);
        answer.refused.emplace(paths[done], tellingWords(result.errors));
        ++done;
    }
    return answer;
}

} // namespace quendo::git
