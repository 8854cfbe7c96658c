#pragma once

#include "quendo/adapter/RevisionHistory.h"
#include "quendo/git/GitLog.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class GitRunner;
struct GitRun;

/// Answers for revisions through the user's git. Threads: used by one.
class GitHistory {
public:
    explicit GitHistory(GitRunner& git) : m_git(git) {}

    /// As RevisionHistory::readRevisions(), but `receive` must not throw.
    void read(const Path& path, const RevisionQuery& query,
              const std::function<bool(std::unique_ptr<Revision>)>& receive);
    std::vector<std::unique_ptr<Revision>> list(const Path& file, const Revision* from);
    std::unique_ptr<Revision> find(const Path& file, const UString& id);
    std::unique_ptr<Revision> current(const Path& file);
    std::vector<std::unique_ptr<Revision>> parentsOf(const Revision& revision);
    void exportTo(const Path& target, const Path& file, const Revision& revision);
    ConflictRevisions conflictOf(const Path& file);

    /// As RevisionContent has them.
    std::optional<std::string> content(const Path& file, const UString& revision,
                                       std::size_t limit);
    std::optional<std::string> stagedContent(const Path& file, std::size_t limit);

private:
    /// What a commit or the index holds under a name.
    struct Entry {
        std::string mode; ///< of six digits
        std::string object;
        std::string path; ///< relative to the root; says which filters the content needs

        bool isLink() const { return mode == "120000"; }
        bool isFile() const { return mode.starts_with("100") || isLink(); }
    };
    std::optional<Entry> entryIn(const std::string& commit, const std::string& path);
    std::optional<Entry> stagedEntry(const Path& file);
    std::uint64_t sizeOf(const Entry& entry);
    bool isConverted(const std::map<std::string, std::string>& attributes);
    void printContent(const Entry& entry, const Path& file, std::uint64_t size, GitRun run);
    std::string contentOf(const Entry& entry, const Path& file, const std::string& where,
                          std::size_t limit);
    template <class Work>
    auto sayingWhatIsNotHere(const Path& file, Work&& work);
    void checkedMetadata() const;
    std::string pathspec(const std::string& relative) const;
    std::string relative(const Path& file) const;
    std::string resolve(std::string_view name, std::string_view shown);
    bool hasCommits();
    bool isFollowed(const Path& file) const;
    std::unique_ptr<Revision> describe(const std::string& commit, const Path& file);

    GitRunner& m_git;
};

} // namespace quendo::git
