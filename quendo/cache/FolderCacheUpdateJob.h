#pragma once

#include "quendo/cache/CacheUpdateJob.h"

namespace quendo {

/// Queries the states of a folder and everything below it.
class FolderCacheUpdateJob final : public CacheUpdateJob {
public:
    FolderCacheUpdateJob(RefreshRequest request, CacheBooks books);
    FolderCacheUpdateJob(RetrySets& set, CacheBooks books);

    /// Folder jobs fit together when one folder lies in the other, or both are the same.
    bool canCombineWith(const CacheUpdateJob& other) const noexcept override;

    /// The outer folder, with this job's flag even where the other's differs.
    std::unique_ptr<CacheUpdateJob> combineWith(const CacheUpdateJob& other) const override;
    /// When both are for the same folder.
    bool canAbsorbAtOnce(const CacheUpdateJob& other) const noexcept override;
    bool willAnswer(const CacheUpdateJob& other) const noexcept override;
    void absorb(CacheUpdateJob& other) noexcept override;
    bool willAnswerFolder(const Path& folder, bool folderStatusFlag) const noexcept override;

    bool isOfFolder() const noexcept override { return true; }
    const PendingPath* find(const Path& path) const override;

    /// What the adapter does not answer leaves the cache, the folder's own entry included.
    void runSpecialization(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) override;

private:
    Path m_folder;
    bool m_folderStatusFlag;
};

} // namespace quendo
