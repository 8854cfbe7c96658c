#pragma once

#include "quendo/adapter/Revision.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class GitRunner;

/// Answers for a file's revisions through the user's git. Threads: used by one.
class GitHistory {
public:
    explicit GitHistory(GitRunner& git) : m_git(git) {}

    std::vector<std::unique_ptr<Revision>> list(const Path& file, const Revision* from);
    std::unique_ptr<Revision> find(const Path& file, const UString& id);
    std::unique_ptr<Revision> current(const Path& file);
    std::vector<std::unique_ptr<Revision>> parentsOf(const Revision& revision);
    void exportTo(const Path& target, const Path& file, const Revision& revision);
    ConflictRevisions conflictOf(const Path& file);

private:
    void checkedMetadata() const;
    std::string pathspec(const std::string& relative) const;
    void runInto(int file, std::vector<std::string> arguments);
    std::string relative(const Path& file) const;
    std::string resolve(std::string_view name, std::string_view shown);
    bool hasCommits();
    std::vector<std::unique_ptr<Revision>> log(const std::vector<std::string>& arguments,
                                               const Path& file);
    std::unique_ptr<Revision> describe(const std::string& commit, const Path& file);

    GitRunner& m_git;
};

/// The revisions that `git log -z --name-status` printed in GitHistory's format.
/// @param file the path of the newest one; renames are followed back from there
std::vector<std::unique_ptr<Revision>> parseLog(std::string_view output, const Path& root,
                                                const Path& file);

} // namespace quendo::git
