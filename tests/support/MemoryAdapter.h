#pragma once

#include "quendo/adapter/CMAdapter.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quendo::test {

/// What a MemoryAdapter answers from, and what it was asked. Threads: any; `states` and `calls`
/// under the lock.
struct MemoryWorkingCopy {
    explicit MemoryWorkingCopy(Path rootFolder) : root(std::move(rootFolder)) {}

    void set(const Path& path, LocalStatus status);
    void erase(const Path& path);
    /// The calls since the last time.
    std::vector<std::string> takeCalls();

    const Path root;
    std::mutex mutex;
    std::map<Path, FileState> states;
    /// Names with paths from the root, and texts: "files a b" and "folder a" for queries, "folder+
    /// a" with the flag, and the names of the operations: "addFiles a b".
    std::vector<std::string> calls;
    /// Called in each of these, before it has an effect; on the thread of the call, without the
    /// lock. May throw.
    std::function<void(const std::string& name, const std::vector<Path>& paths)> inCall =
        [](const auto&...) {};
};

/// An adapter without a disk, for tests of what stands above adapters: it answers statuses (the
/// flag leaves out what is not tracked), its root, and two forbidden names, ".fake" and ".lock".
/// Operations change nothing. It does not listen to the termination signal.
std::unique_ptr<CMAdapter> makeMemoryAdapter(std::shared_ptr<MemoryWorkingCopy> workingCopy);

} // namespace quendo::test
