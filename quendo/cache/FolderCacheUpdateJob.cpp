#include "quendo/cache/FolderCacheUpdateJob.h"

#include "quendo/adapter/CMAdapter.h"

#include <utility>

namespace quendo {

FolderCacheUpdateJob::FolderCacheUpdateJob(RefreshRequest request,
                                           std::shared_ptr<CacheSignals> signals,
                                           std::shared_ptr<RefreshLedger> ledger)
    : CacheUpdateJob(std::move(request), std::move(signals), std::move(ledger)),
      m_folder(requests().front().folder), m_folderStatusFlag(requests().front().folderStatusFlag) {
}

bool FolderCacheUpdateJob::canCombineWith(const CacheUpdateJob& other) const noexcept {
    const auto* job = dynamic_cast<const FolderCacheUpdateJob*>(&other);
    return job != nullptr && (m_folder == job->m_folder || job->m_folder.isBelow(m_folder) ||
                              m_folder.isBelow(job->m_folder));
}

std::unique_ptr<CacheUpdateJob>
FolderCacheUpdateJob::combineWith(const CacheUpdateJob& other) const {
    std::unique_ptr<CacheUpdateJob> result(new FolderCacheUpdateJob(*this));
    FolderCacheUpdateJob second(dynamic_cast<const FolderCacheUpdateJob&>(other));
    result->absorb(second);
    return result;
}

void FolderCacheUpdateJob::absorb(CacheUpdateJob& other) noexcept {
    const auto& folder = static_cast<FolderCacheUpdateJob&>(other).m_folder;
    if (m_folder.isBelow(folder))
        m_folder = folder;
    CacheUpdateJob::absorb(other);
}

bool FolderCacheUpdateJob::willAnswerFolder(const Path& folder,
                                            bool folderStatusFlag) const noexcept {
    return m_folderStatusFlag == folderStatusFlag &&
           (folder == m_folder || folder.isBelow(m_folder));
}

void FolderCacheUpdateJob::runSpecialization(CMAdapter& adapter,
                                             TransactionalFileCache<FileState>& cache) {
    answer(adapter, cache, m_folder, m_folderStatusFlag);
}

void FolderCacheUpdateJob::answerOwed(CMAdapter& adapter,
                                      TransactionalFileCache<FileState>& cache) {
    const auto& request = ledger().running().front();
    answer(adapter, cache, request.folder, request.folderStatusFlag);
}

void FolderCacheUpdateJob::answer(CMAdapter& adapter, TransactionalFileCache<FileState>& cache,
                                  const Path& folder, bool folderStatusFlag) {
    const auto answer = adapter.getStatus(folder, folderStatusFlag);
    auto transaction = beginTransaction(cache);
    transaction.replace(folder, answer);
    commit(transaction);
}

} // namespace quendo
