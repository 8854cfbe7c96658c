#pragma once

#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/standard/ThreadStarter.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace quendo::platform {

/// The types of file systems (statfs) that other machines, or a server, change unseen.
QUENDO_API const std::vector<std::uint32_t>& remoteFileSystems();

struct InotifyFolderWatcherOptions {
    /// From one look at what has to be polled to the next; ten times what a look takes if that is
    /// more.
    std::chrono::milliseconds pollInterval{2'000};
    /// Bytes of events that may wait for the callbacks; room for a million short names.
    std::size_t queueBound = 32U << 20U;
    std::vector<std::uint32_t> polledFileSystems = remoteFileSystems();
    ThreadStarter startThread = startDetachedThread;
    std::function<void()> beforeRead; ///< for tests: holds the reader up
};

/// The library's own watcher, by inotify. It has two threads and three descriptors while anything
/// is watched, and nothing otherwise; it may go before its watches.
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
