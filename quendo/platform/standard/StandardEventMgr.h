#pragma once

#include "quendo/platform/EventMgr.h"
#include "quendo/platform/VirtualFileSystem.h"

#include <memory>

namespace quendo::platform {

class FolderWatcher;

/// Both event services over a FolderWatcher: one watch for each subscription, which share the
/// physical one.
class QUENDO_API StandardEventMgr : public EventMgr, public VirtualFileSystem {
public:
    /// @param watcher null for that of services()
    explicit StandardEventMgr(std::shared_ptr<FolderWatcher> watcher = nullptr);
    ~StandardEventMgr() override;

    /// One a process, never destroyed.
    static std::shared_ptr<StandardEventMgr> instance();

    void publishEventsFor(const FileOrFolder& fileOrFolder,
                          const std::vector<StorageEventKind>& kinds,
                          WithRecursiveChangeEvents recursive) override;
    std::unique_ptr<EventSubscription> subscribe(Handler handler,
                                                 const std::vector<EventType>& types,
                                                 const std::vector<std::string>& userTags) override;
    void unsubscribe(const FileOrFolder& fileOrFolder,
                     std::unique_ptr<EventSubscription> subscription) override;
    SubscriptionCountByTag getSubscriptionCountByTag() const override;

private:
    struct State;
    class Subscription;

    const std::shared_ptr<FolderWatcher> m_watcher;
    const std::shared_ptr<State> m_state;
};

} // namespace quendo::platform
