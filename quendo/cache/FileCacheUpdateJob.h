#pragma once

#include "quendo/cache/CacheUpdateJob.h"

namespace quendo {

/// Queries the states of a list of files.
class FileCacheUpdateJob final : public CacheUpdateJob {
public:
    using CacheUpdateJob::CacheUpdateJob;

    /// Any two file jobs fit together.
    bool canCombineWith(const CacheUpdateJob& other) const noexcept override;
    std::unique_ptr<CacheUpdateJob> combineWith(const CacheUpdateJob& other) const override;
    bool canAbsorbAtOnce(const CacheUpdateJob& other) const noexcept override;
    bool willAnswer(const CacheUpdateJob& other) const noexcept override;
    bool willAnswerFolder(const Path&, bool) const noexcept override { return false; }
    bool isOfFolder() const noexcept override { return false; }
    const PendingPath* find(const Path& path) const override;

    /// Files that the adapter does not answer leave the cache.
    void runSpecialization(CMAdapter& adapter, TransactionalFileCache<FileState>& cache) override;
};

} // namespace quendo
