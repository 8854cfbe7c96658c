#pragma once

#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/MountTable.h"
#include "quendo/platform/standard/FileSystemCalls.h"
#include "quendo/platform/standard/ThreadStarter.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace quendo::platform {

struct InotifyFolderWatcherOptions {
    /// From one pass over the polled folders of a working copy to the next; ten times what a pass
    /// takes if that is more.
    std::chrono::milliseconds pollInterval{2'000};
    /// How long watch() waits for a remote file system that does not answer, and after how long
    /// the health of its folders says so.
    std::chrono::milliseconds patience{2'000};
    /// Bytes of events that may wait for the callbacks; room for a million short names.
    std::size_t queueBound = 32U << 20U;
    /// Types of file systems as the mount table names them.
    std::vector<std::string> polledFileSystems = remoteFileSystems();
    std::shared_ptr<FileSystemCalls> calls = std::make_shared<FileSystemCalls>();
    ThreadStarter startThread = startDetachedThread;
    std::function<void()> beforeRead; ///< for tests: holds the reader up
};

/// The library's own watcher, by inotify. While anything is watched it has two threads and four
/// descriptors, and one more thread for each remote file system that has something to do, and one
/// that polls; nothing otherwise. It may go before its watches.
///
/// Of a remote file system that does not answer, watch() returns after `patience` at most; the
/// folder is watched, and ContentsUnknown is told, when it answers. A callback that throws
/// std::bad_alloc or std::system_error, for want of memory or of a thread, is called again with
/// ContentsUnknown for its folder until it does not.
class QUENDO_API InotifyFolderWatcher : public FolderWatcher {
public:
    /// One a process, never destroyed.
    static std::shared_ptr<InotifyFolderWatcher> instance();

    explicit InotifyFolderWatcher(InotifyFolderWatcherOptions options = {});
    ~InotifyFolderWatcher() override;

    std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback) override;
    void fence(UniqueFunction<void()> reached) override;
    WatchHealth getHealth(const Path& folder) const override;
    boost::signals2::connection connectHealthChanged(const HealthSlot& slot) override;

private:
    struct Impl;
    const std::shared_ptr<Impl> m_impl;
};

} // namespace quendo::platform
