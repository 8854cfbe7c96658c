#pragma once

#include <filesystem>
#include <map>
#include <set>
#include <string>

namespace quendo::test {

/// All that can be told of each path below a folder, access times excepted.
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot(const std::filesystem::path& folder);

/// The paths that are not the same in both.
std::set<std::string> changesBetween(const Snapshot& before, const Snapshot& after);

/// Sees what is made, written or removed in the folders that lie below one, however short it lives.
class TreeWatch {
public:
    explicit TreeWatch(const std::filesystem::path& folder);
    ~TreeWatch();
    TreeWatch(const TreeWatch&) = delete;
    TreeWatch& operator=(const TreeWatch&) = delete;

    /// The paths seen since the last call.
    std::set<std::string> drain();

private:
    void add(const std::filesystem::path& folder);

    const int m_inotify;
    std::map<int, std::string> m_folders;
};

} // namespace quendo::test
