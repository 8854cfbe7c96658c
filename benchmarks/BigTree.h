#pragma once

#include "benchmarks/Measuring.h"
#include "quendo/adapter/CMAdapterDecorator.h"
#include "tests/support/MemoryAdapter.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <ranges>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace quendo::benchmark {

/// The files of a large working copy, sorted, in one text: about 20 a folder, 3 to 9 deep. The same
/// for the same number. Folders are named without a separator at the end, the root is "".
class BigTree {
public:
    explicit BigTree(std::size_t files) {
        makeFolders(files / 20 + 1);
        std::vector<std::string> all;
        for (std::size_t i = 0; all.size() < files; i = (i + 1) % m_folders.size())
            addFiles(m_folders[i], std::min(files - all.size(), 10 + m_random.below(21)), all);
        std::ranges::sort(all);
        for (const auto& each : all) {
            m_text += each;
            m_ends.push_back(m_text.size());
        }
    }
    std::size_t size() const { return m_ends.size(); }

    /// Of the whole paths, in bytes of UTF-8.
    double meanSize() const {
        return static_cast<double>(m_text.size()) / static_cast<double>(size()) +
               static_cast<double>(root().string().size() + 1);
    }
    Path pathOf(std::size_t i) const { return root().child((*this)[i]); }

    /// First and behind the last of what lies in `folder`.
    std::pair<std::size_t, std::size_t> rangeOf(const std::string& folder) const {
        const auto start = folder.empty() ? folder : folder + "/";
        const auto find = [&](auto&& isBefore) {
            return *std::ranges::partition_point(
                std::views::iota(std::size_t{0}, size() + 1), [&](auto i) {
                    return i != size() && isBefore((*this)[i].substr(0, start.size()));
                });
        };
        return {find([&](auto text) { return text < start; }),
                find([&](auto text) { return text <= start; })};
    }
    /// The folder whose number of files comes nearest to `files`, of those at this depth.
    std::string folderOf(std::size_t files, std::ptrdiff_t depth) const {
        const auto distance = [&](const std::string& folder) {
            const auto [first, last] = rangeOf(folder);
            return std::max(last - first, files) - std::min(last - first, files);
        };
        auto candidates = m_folders;
        std::erase_if(candidates,
                      [&](const auto& each) { return std::ranges::count(each, '/') + 1 != depth; });
        return *std::ranges::min_element(candidates, {}, distance);
    }

    static const Path& root() {
        static const auto path = Path::fromNative("/home/dev/trunk");
        return path;
    }

private:
    std::string_view operator[](std::size_t i) const {
        const auto start = i == 0 ? 0 : m_ends[i - 1];
        return std::string_view(m_text).substr(start, m_ends[i] - start);
    }
    void makeFolders(std::size_t count) {
        std::array<std::vector<std::string>, 9> levels;
        for (std::size_t depth = 1; depth < 8; ++depth) // so that each has a parent
            levels[depth].push_back((depth == 1 ? "" : levels[depth - 1].front() + "/") + word());
        std::unordered_set<std::string> seen;
        constexpr std::string_view depths = "12233334444455556678";
        while (m_folders.size() < count) {
            const auto depth =
                static_cast<std::size_t>(depths[m_random.below(depths.size())] - '0');
            const auto& parents = levels[depth - 1];
            auto name = word();
            if (depth > 1)
                name.insert(0, parents[m_random.below(parents.size())] + "/");
            while (!seen.insert(name).second)
                name += "_" + word();
            levels[depth].push_back(name);
            if (depth > 1)
                m_folders.push_back(name);
        }
    }
    void addFiles(const std::string& folder, std::size_t count, std::vector<std::string>& all) {
        constexpr std::array endings{".cpp", ".h", ".ts", ".py", ".go", ".json", ".java", ".md"};
        const auto first = m_random.below(words.size() * words.size());
        for (std::size_t i = 0; i < count; ++i) {
            const auto two = (first + i * 1361) % (words.size() * words.size());
            all.push_back(folder + "/" + words[two / words.size()] + "_" +
                          words[two % words.size()] + endings[(first + i % 2) % endings.size()]);
        }
    }
    std::string word() { return words[m_random.below(words.size())]; }

    // clang-format off
    static constexpr std::array words{
        "account", "api", "app", "async", "auth", "base", "billing", "buffer", "build", "cache",
        "client", "common", "config", "core", "data", "db", "docs", "event", "export", "file",
        "filter", "format", "graph", "handler", "http", "id", "impl", "index", "input", "io", "job",
        "json", "key", "legacy", "lib", "list", "loader", "log", "main", "manager", "map", "model",
        "net", "node", "parser", "payment", "plugin", "pool", "proto", "query", "reader", "report",
        "router", "search", "server", "session", "state", "store", "stream", "test", "token",
        "types", "utils", "view"};
    // clang-format on

    Random m_random{1};
    std::vector<std::string> m_folders;
    std::string m_text;
    std::vector<std::size_t> m_ends;
};

/// Every state in an odd round is another one than in an even round.
inline FileState stateOf(const Path& path, unsigned round) {
    constexpr std::array rare{LocalStatus::Modified, LocalStatus::Added, LocalStatus::Ignored,
                              LocalStatus::NotUnderSourceControl, LocalStatus::Conflicted};
    const auto kind = path.hash() % 100;
    const auto state = kind < rare.size() ? rare[kind] : LocalStatus::Unmodified;
    if (round % 2 == 0)
        return FileState(state);
    return FileState(state == LocalStatus::Modified ? LocalStatus::Deleted : LocalStatus::Modified);
}

/// What an adapter answers for a folder. As those that read a disk do, it makes the paths anew.
inline std::map<Path, FileState> answerOf(const BigTree& tree, const std::string& folder,
                                          unsigned round, std::size_t skipped = 0) {
    std::map<Path, FileState> answer;
    const auto [first, last] = tree.rangeOf(folder);
    for (auto i = first + skipped; i < last; ++i) {
        auto path = tree.pathOf(i);
        const auto state = stateOf(path, round);
        answer.emplace_hint(answer.end(), std::move(path), state);
    }
    return answer;
}

/// Answers from a BigTree.
class BigTreeAdapter final : public CMAdapterDecorator {
public:
    explicit BigTreeAdapter(const BigTree& tree)
        : CMAdapterDecorator(
              test::makeMemoryAdapter(std::make_shared<test::MemoryWorkingCopy>(BigTree::root()))),
          m_tree(tree) {}

    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override {
        ++fileQueries;
        beforeFiles();
        std::map<Path, FileState> answer;
        for (const auto& file : files)
            answer.emplace(file, stateOf(file, fileRound));
        return answer;
    }
    std::map<Path, FileState> getStatus(const Path& folder, bool) const override {
        std::map<Path, FileState> answer;
        folderTime = millisecondsOf([&] {
            const auto inRoot =
                folder == BigTree::root() ? Path() : folder.lexicallyRelative(BigTree::root());
            answer = answerOf(m_tree, inRoot.toUtf8(), folderRound, skipped);
        });
        return answer;
    }

    std::atomic<unsigned> fileRound = 0;
    std::atomic<unsigned> folderRound = 0;
    std::atomic<std::size_t> skipped = 0; ///< of a folder's first files
    std::function<void()> beforeFiles = [] {};
    mutable std::atomic<std::size_t> fileQueries = 0;
    mutable std::atomic<double> folderTime = 0; ///< of the last query, in milliseconds

private:
    const BigTree& m_tree;
};

} // namespace quendo::benchmark
