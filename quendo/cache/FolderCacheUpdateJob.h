#pragma once

#include "quendo/cache/CacheUpdateJob.h"

namespace quendo {

/// Asks for the states of a folder and everything below it.
class FolderCacheUpdateJob final : public CacheUpdateJob {
public:
    FolderCacheUpdateJob(RefreshRequest request, std::shared_ptr<CacheSignals> signals,
                         std::shared_ptr<RefreshLedger> ledger);

    /// Folder jobs fit together when one folder lies in the other, or both are the same.
    bool canCombineWith(const CacheUpdateJob& other) const noexcept override;

    /// The outer folder, with this job's flag even where the other's differs.
    std::unique_ptr<CacheUpdateJob> combineWith(const CacheUpdateJob& other) const override;
    bool combinesAtOnce() const noexcept override { return false; }
    void absorb(CacheUpdateJob& other) noexcept override;
    bool willAnswerFolder(const Path& folder, bool folderStatusFlag) const noexcept override;

    const Path& folder() const noexcept { return m_folder; }

    /// What the adapter does not answer leaves the cache, the folder's own entry included.
    void runSpecialization(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) override;

protected:
    bool isOfFolder() const noexcept override { return true; }
    void answerOwed(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) override;

private:
    void answer(CMAdapter& adapter, TransactionalFileCache<FileState>& cache, const Path& folder,
                bool folderStatusFlag);

    Path m_folder;
    bool m_folderStatusFlag;
};

} // namespace quendo
