#include "quendo/git/GitIndex.h"

#include "quendo/git/GitActor.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitText.h"
#include "quendo/git/Repository.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

namespace quendo::git {
namespace {

constexpr std::size_t mostArguments = 64; // beyond, everything is listed and the rest left out

} // namespace

std::string pathspecsOf(const std::vector<std::string>& paths) {
    std::string input;
    for (const auto& path : paths)
        input.append(":(top,literal)").append(path).push_back('\0');
    return input;
}

std::string GitIndex::nameOf(const std::string& path) const {
    // Relative to where git runs, which is the root unless core.worktree moved it.
    const auto& repository = m_git.repository();
    return repository.folder() == repository.root() ? path : repository.root() + "/" + path;
}

std::string GitIndex::inputOf(const std::vector<std::string>& paths) const {
    std::string input;
    for (const auto& path : paths)
        input.append(nameOf(path)).push_back('\0');
    return input;
}

GitIndex::Entries GitIndex::ofHead(const std::vector<std::string>& paths) {
    Entries entries;
    if (paths.empty())
        return entries;
    const auto commit =
        m_git.run({GitRun{.arguments = {"rev-parse", "--verify", "--quiet", "HEAD^{commit}"}}});
    if (commit.front().exitCode != 0) {
        if (!commit.front().errors.empty())
            throwGitFailure(m_git.repository().root(), "rev-parse", commit.front());
        return entries;
    }
    const std::unordered_set<std::string> wanted(paths.begin(), paths.end());
    GitRun list{.arguments = {"ls-tree", "-r", "-z", "--full-tree", "HEAD"}};
    if (paths.size() <= mostArguments) {
        list.arguments.push_back("--");
        list.arguments.insert(list.arguments.end(), paths.begin(), paths.end());
    }
    // "<mode> <type> <object>\t<path>"
    NulSplitter("ls-tree").feed(m_git.read(list), [&](std::string_view record) {
        const auto tab = record.find('\t');
        const auto type = record.find(' '), object = record.find(' ', type + 1);
        if (tab == std::string_view::npos || object == std::string_view::npos || object > tab ||
            !isObjectName(record.substr(object + 1, tab - object - 1)))
            throwGarbage("ls-tree");
        auto path = std::string(record.substr(tab + 1));
        if (wanted.contains(path))
            entries.emplace(std::move(path), std::string(record.substr(0, type)) +
                                                 std::string(record.substr(object, tab - object)));
    });
    return entries;
}

void GitIndex::stage(const std::vector<std::string>& paths) {
    if (!paths.empty())
        m_actor.run(
            {.arguments = {"update-index", "--add", "--remove", "--replace", "-z", "--stdin"},
             .input = inputOf(paths)});
}

void GitIndex::forget(const std::vector<std::string>& paths) {
    if (!paths.empty())
        m_actor.run({.arguments = {"update-index", "--force-remove", "-z", "--stdin"},
                     .input = inputOf(paths)});
}

void GitIndex::writeOut(const std::vector<std::string>& paths) {
    m_actor.run({.arguments = {"checkout-index", "--quiet", "--force", "--index", "-z", "--stdin"},
                 .input = inputOf(paths)});
}

void GitIndex::put(const Entries& entries, const std::vector<std::string>& forgotten) {
    if (entries.empty())
        return forget(forgotten);
    // Names are as in the index here, wherever git runs.
    const auto& first = entries.begin()->second;
    const auto object = first.find(' ') + 1;
    const auto objectSize = std::min(first.find(' ', object), first.size()) - object;
    std::string input;
    for (const auto& path : forgotten)
        input.append("0 ").append(objectSize, '0').append("\t").append(path).push_back('\0');
    for (const auto& [path, sides] : entries) {
        // With several, all that is there goes first.
        if (sides.find('\n') != std::string::npos)
            input.append("0 ").append(objectSize, '0').append("\t").append(path).push_back('\0');
        for (std::size_t start = 0; start <= sides.size();) {
            const auto end = std::min(sides.find('\n', start), sides.size());
            input.append(sides, start, end - start).append("\t").append(path).push_back('\0');
            start = end + 1;
        }
    }
    m_actor.run({.arguments = {"update-index", "-z", "--index-info"}, .input = input});
}

GitIndex::Entries GitIndex::ofFile(const std::string& file) {
    Entries entries;
    // "<mode> <object> <side>\t<path>"; a path in conflict has several.
    NulSplitter("ls-files")
        .feed(m_git.read({.arguments = {"ls-files", "-s", "-z", "--full-name", ":/"},
                          .indexFile = file,
                          .literalPathspecs = false}),
              [&](std::string_view record) {
                  const auto tab = record.find('\t');
                  if (tab == std::string_view::npos || tab < 12)
                      throwGarbage("ls-files");
                  auto& entry = entries[std::string(record.substr(tab + 1))];
                  const bool isOnly = record[tab - 1] == '0';
                  entry.append(entry.empty() ? "" : "\n");
                  entry.append(record.substr(0, isOnly ? tab - 2 : tab));
              });
    return entries;
}

std::size_t GitIndex::rename(const std::string& source, const std::string& destination) {
    Entries entries;
    std::vector<std::string> forgotten;
    // "<mode> <object> <stage>\t<path>"
    NulSplitter("ls-files")
        .feed(m_git.read(
                  {.arguments = {"ls-files", "-s", "-z", "--full-name", "--", nameOf(source)}}),
              [&](std::string_view record) {
                  const auto tab = record.find('\t');
                  if (tab == std::string_view::npos || tab < 12)
                      throwGarbage("ls-files");
                  const std::string path(record.substr(tab + 1));
                  if (path != source && !path.starts_with(source + "/"))
                      throwGarbage("ls-files");
                  entries.emplace(destination + path.substr(source.size()),
                                  std::string(record.substr(0, tab - 2)));
                  forgotten.push_back(path);
              });
    put(entries, forgotten);
    return forgotten.size();
}

} // namespace quendo::git
