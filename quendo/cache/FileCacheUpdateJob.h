#pragma once

#include "quendo/cache/CacheUpdateJob.h"

namespace quendo {

/// Asks for the states of a list of files.
class FileCacheUpdateJob final : public CacheUpdateJob {
public:
    using CacheUpdateJob::CacheUpdateJob;

    /// Any two file jobs fit together.
    bool canCombineWith(const CacheUpdateJob& other) const noexcept override;
    std::unique_ptr<CacheUpdateJob> combineWith(const CacheUpdateJob& other) const override;
    bool combinesAtOnce() const noexcept override { return true; }
    bool willAnswerFolder(const Path&, bool) const noexcept override { return false; }

    /// Files that the adapter does not answer leave the cache.
    void runSpecialization(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) override;

protected:
    bool isOfFolder() const noexcept override { return false; }
    void answerOwed(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) override;
};

} // namespace quendo
