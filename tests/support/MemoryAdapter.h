#pragma once

#include "quendo/adapter/CMAdapter.h"
#include "quendo/platform/Path.h"

#include <map>
#include <memory>
#include <mutex>

namespace quendo::test {

/// What a MemoryAdapter answers from. Threads: any; `states` under the lock.
struct MemoryWorkingCopy {
    explicit MemoryWorkingCopy(Path rootFolder) : root(std::move(rootFolder)) {}

    void set(const Path& path, LocalStatus status);
    void erase(const Path& path);

    const Path root;
    std::mutex mutex;
    std::map<Path, FileState> states;
};

/// An adapter without a disk, for tests of what stands above adapters: it answers statuses (the
/// flag leaves out what is not tracked), its root, and two forbidden names, ".fake" and ".lock".
/// All else is not available. It does not listen to the termination signal.
std::unique_ptr<CMAdapter> makeMemoryAdapter(std::shared_ptr<MemoryWorkingCopy> workingCopy);

} // namespace quendo::test
