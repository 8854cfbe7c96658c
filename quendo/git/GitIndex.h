#pragma once

#include <string>
#include <unordered_map>
#include <vector>

namespace quendo::git {

class GitActor;
class GitRunner;

/// Changes entries of the index, each call in one step: all of it or nothing. Linear in the number
/// of paths, where git's commands for people compare every path with every entry.
///
/// Paths are native and relative to the root. Threads: used by one.
class GitIndex {
public:
    GitIndex(GitRunner& git, GitActor& actor) : m_git(git), m_actor(actor) {}

    /// Entries as "<mode> <object>", and " <side>" of a conflict, by path; none for a path that has
    /// none.
    using Entries = std::unordered_map<std::string, std::string>;

    /// Those of an index file, with the number of their sides; empty when there is none.
    Entries ofFile(const std::string& file);

    /// Those of HEAD; empty before the first commit.
    Entries ofHead(const std::vector<std::string>& paths);

    /// Takes files in as they are on disk, and entries without a file out.
    void stage(const std::vector<std::string>& paths);

    /// Takes entries out.
    void forget(const std::vector<std::string>& paths);

    /// Writes files as the index has them.
    void writeOut(const std::vector<std::string>& paths);

    /// Puts `entries` in, and takes `forgotten` out.
    void put(const Entries& entries, const std::vector<std::string>& forgotten);

    /// Gives the entries at and below `source` new names, without a look at the disk.
    /// @return how many
    std::size_t rename(const std::string& source, const std::string& destination);

    /// How git is told of a path, where it takes no pathspec.
    std::string nameOf(const std::string& path) const;

private:
    std::string inputOf(const std::vector<std::string>& paths) const;

    GitRunner& m_git;
    GitActor& m_actor;
};

/// For --pathspec-from-file: each path and nothing else, whatever its name looks like.
std::string pathspecsOf(const std::vector<std::string>& paths);

} // namespace quendo::git
