#pragma once

#include "quendo/git/FileDescriptor.h"

#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quendo::git {

class Repository;

/// Keeps files as they are while an operation writes over them or deletes them, so that one that
/// fails half-way (a full disk, a missing permission, a cancellation) leaves everything as it was.
///
/// Files are kept as further hard links in a folder of the repository's metadata
/// ("quendo/kept-…"), which costs no space; as copies where the file system has no links or another
/// one holds them. The index is kept with them. The file "list" there tells which is which, for a
/// person who looks for something after this process was killed; such a folder goes with the first
/// operation that finds it two weeks old.
///
/// Paths are native and relative to the working copy's root. Threads: used by one.
class KeptFiles {
public:
    /// @throws exception::OperationFailedError when the folder cannot be made
    explicit KeptFiles(const Repository& repository);
    ~KeptFiles();
    KeptFiles(const KeptFiles&) = delete;
    KeptFiles& operator=(const KeptFiles&) = delete;

    /// Keeps what stands at each path: regular files and symbolic links, and nothing else. Where
    /// nothing is, that is kept: what the operation writes there goes again.
    /// @throws exception::OperationFailedError when one cannot be kept
    void keep(const std::vector<std::string>& paths);

    /// Call it when the operation has done all it does to the index, or to a part of it: only an
    /// index as it is now is put back by restore().
    void noteIndex();

    /// Puts back everything that is not as it was kept: files, the folders that they lie in, and
    /// the index unless another git has changed it meanwhile or holds it.
    /// @return empty when all is as it was; else what is not, in words, and where it is kept
    std::string restore();

private:
    struct Stamp {
        dev_t device = 0;
        ino_t file = 0;
        off_t size = -1;
        long long seconds = 0;
        long nanoseconds = 0;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    struct File {
        std::string path;
        Stamp stamp;
    };

    static Stamp stampOf(int folder, const std::string& path);
    void keepOne(int source, const std::string& path, const std::string& name) const;
    bool putBack(const File& file, const std::string& name) const;
    std::string restoreIndex();
    void dropOldOnes() const;

    const Repository& m_repository;
    FileDescriptor m_root;
    FileDescriptor m_metadata;
    std::string m_name; ///< of the folder, within the metadata
    FileDescriptor m_folder;
    std::vector<File> m_files;             ///< kept under their positions as names
    std::vector<std::string> m_absent;     ///< paths at which nothing was
    std::set<std::string> m_absentFolders; ///< those above them that were not there either
    Stamp m_indexBefore;
    Stamp m_indexAfter;
    bool m_isNeeded = false; ///< something could not be put back
};

} // namespace quendo::git
