#pragma once

#include "quendo/git/GitIndex.h"
#include "quendo/git/WorkingTree.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <string>
#include <vector>

namespace quendo::git {

class GitActor;
class GitRunner;
class KeptFiles;
class Repository;

/// Changes a working copy through the user's git: what each operation of the adapter means for Git
/// (docs/git.md). One object does one operation. It looks first at what it is to change, and
/// refuses what it cannot do whole; then it does it, or leaves everything as it was.
///
/// All throw exception::OperationFailedError with what to do about it, and what a GitActor throws.
/// Threads: used by one.
class GitActions {
public:
    GitActions(GitRunner& git, GitActor& actor);

    void checkin(const std::vector<Path>& files, const UString& message);
    void add(const std::vector<Path>& files);
    void remove(const std::vector<Path>& files);
    void move(const Path& source, const Path& destination);
    void revert(const std::vector<Path>& files);
    void discard();
    void makeWritable(const std::vector<Path>& files);
    void resolve(const Path& file);
    /// @return the rules file, if it was written
    std::vector<Path> ignore(const std::vector<Path>& files);

private:
    struct Reversion {
        std::vector<std::string> toWrite;  ///< files to be written as in HEAD
        GitIndex::Entries toReset;         ///< HEAD's entries for the index
        std::vector<std::string> toForget; ///< entries of the index that HEAD does not have
        std::vector<std::string> toDelete; ///< files to be deleted
    };

    void undoInIndex(KeptFiles& kept);
    template <class Work>
    void orAsItWas(KeptFiles& kept, Work&& work);
    Reversion planReversion(const std::vector<TreeItem>& items);
    void revert(const Reversion& reversion);
    std::vector<std::string> broughtByOperation(const std::vector<TreeItem>& items,
                                                const std::vector<std::string>& added);
    bool isInConflictSides(const std::string& path);
    void commit(const std::vector<std::string>& options, const std::string& input,
                const UString& message, const std::vector<std::string>& paths);
    bool isMoreStagedThan(const std::vector<TreeItem>& items);
    void checkinWhole(const std::vector<TreeItem>& items, const UString& message);
    void deleteFiles(const std::vector<std::string>& paths) const;
    void moveOnDisk(const std::string& source, const std::string& destination);
    bool hasConflictMarkers(const std::string& path);

    GitRunner& m_git;
    GitActor& m_actor;
    const Repository& m_repository;
    WorkingTree m_tree;
    GitIndex m_index;
};

} // namespace quendo::git
