#include "quendo/cache/FileCacheUpdateJob.h"

#include "quendo/adapter/CMAdapter.h"

#include <unordered_set>

namespace quendo {

bool FileCacheUpdateJob::canCombineWith(const CacheUpdateJob& other) const noexcept {
    return dynamic_cast<const FileCacheUpdateJob*>(&other) != nullptr;
}

std::unique_ptr<CacheUpdateJob> FileCacheUpdateJob::combineWith(const CacheUpdateJob& other) const {
    std::unique_ptr<CacheUpdateJob> result(new FileCacheUpdateJob(*this));
    FileCacheUpdateJob second(dynamic_cast<const FileCacheUpdateJob&>(other));
    result->absorb(second);
    return result;
}

void FileCacheUpdateJob::runSpecialization(CMAdapter& adapter,
                                           TransactionalFileCache<FileState>& cache) {
    // Each file once, in the order of the requests: the same file is often asked for repeatedly
    // while a job runs.
    std::vector<Path> files;
    std::unordered_set<Path> seen;
    for (const auto& request : ledger().running()) {
        for (const auto& file : request.files) {
            if (seen.insert(file).second)
                files.push_back(file);
        }
    }
    const auto answer = adapter.getStatus(files);
    auto transaction = beginTransaction(cache);
    transaction.merge(answer);
    for (const auto& file : files) {
        if (!answer.contains(file))
            transaction.erase(file);
    }
    commit(transaction);
}

void FileCacheUpdateJob::answerOwed(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) {
    runSpecialization(adapter, cache);
}

} // namespace quendo
