#include "quendo/cache/FolderCacheUpdateJob.h"

#include "quendo/adapter/CMAdapter.h"

#include <utility>

namespace quendo {

FolderCacheUpdateJob::FolderCacheUpdateJob(RefreshRequest request, CacheBooks books)
    : CacheUpdateJob(std::move(request), std::move(books)), m_folder(requests().front().folder),
      m_folderStatusFlag(requests().front().folderStatusFlag) {}

FolderCacheUpdateJob::FolderCacheUpdateJob(RetrySets& set, CacheBooks books)
    : CacheUpdateJob(set, std::move(books)), m_folder(paths().map().begin()->first),
      m_folderStatusFlag(paths().map().begin()->second.folderStatusFlag) {}

bool FolderCacheUpdateJob::canCombineWith(const CacheUpdateJob& other) const noexcept {
    const auto* job = dynamic_cast<const FolderCacheUpdateJob*>(&other);
    return job != nullptr && !isAlone() && !job->isAlone() &&
           (isInside(job->m_folder, m_folder) || m_folder.isBelow(job->m_folder));
}

bool FolderCacheUpdateJob::canAbsorbAtOnce(const CacheUpdateJob& other) const noexcept {
    const auto* job = dynamic_cast<const FolderCacheUpdateJob*>(&other);
    return job != nullptr && canCombineWith(other) && m_folder == job->m_folder;
}

bool FolderCacheUpdateJob::willAnswer(const CacheUpdateJob& other) const noexcept {
    const auto* job = dynamic_cast<const FolderCacheUpdateJob*>(&other);
    return job != nullptr && !job->isAlone() &&
           willAnswerFolder(job->m_folder, job->m_folderStatusFlag);
}

const PendingPath* FolderCacheUpdateJob::find(const Path& path) const {
    return paths().findAround(path);
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
    return !isAlone() && m_folderStatusFlag == folderStatusFlag && isInside(folder, m_folder);
}

void FolderCacheUpdateJob::runSpecialization(CMAdapter& adapter,
                                             TransactionalFileCache<FileState>& cache) {
    const auto answer = adapter.getStatus(m_folder, m_folderStatusFlag);
    auto transaction = beginTransaction(cache);
    transaction.replace(m_folder, answer);
    commit(transaction);
}

} // namespace quendo
