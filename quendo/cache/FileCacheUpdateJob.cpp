#include "quendo/cache/FileCacheUpdateJob.h"

#include "quendo/adapter/CMAdapter.h"

namespace quendo {

bool FileCacheUpdateJob::canCombineWith(const CacheUpdateJob& other) const noexcept {
    const auto* job = dynamic_cast<const FileCacheUpdateJob*>(&other);
    return job != nullptr && !isAlone() && !job->isAlone();
}

bool FileCacheUpdateJob::canAbsorbAtOnce(const CacheUpdateJob& other) const noexcept {
    return canCombineWith(other);
}

bool FileCacheUpdateJob::willAnswer(const CacheUpdateJob& other) const noexcept {
    return canCombineWith(other);
}

const PendingPath* FileCacheUpdateJob::find(const Path& path) const {
    return paths().findAround(path); // a file may have taken the place of a folder
}

std::unique_ptr<CacheUpdateJob> FileCacheUpdateJob::combineWith(const CacheUpdateJob& other) const {
    std::unique_ptr<CacheUpdateJob> result(new FileCacheUpdateJob(*this));
    FileCacheUpdateJob second(dynamic_cast<const FileCacheUpdateJob&>(other));
    result->absorb(second);
    return result;
}

void FileCacheUpdateJob::runSpecialization(CMAdapter& adapter,
                                           TransactionalFileCache<FileState>& cache) {
    const auto files = ledger().running().inOrder();
    const auto answer = adapter.getStatus(files);
    auto transaction = beginTransaction(cache);
    transaction.merge(answer);
    for (const auto& file : files) {
        if (!answer.contains(file))
            transaction.erase(file);
    }
    commit(transaction);
}

} // namespace quendo
