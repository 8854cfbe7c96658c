#pragma once

#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/EventBroadcastingCMAdapter.h"
#include "quendo/cache/BranchStateCache.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/VFSFileChangeCacheUpdater.h"
#include "quendo/platform/EachSlot.h"
#include "quendo/platform/ReentrantReadWriteLock.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/RootWatch.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>

#include <array>
#include <functional>

namespace quendo {

namespace platform {
struct Services;
}

/// The one managed folder of a working copy. It owns all that works for it; what still runs when it
/// is destroyed (a query, a listener) holds what it needs and ends by itself.
///
/// The adapter's layers, outermost first: telling what operations changed, noticing what others
/// change, one operation at a time, the raw adapter.
///
/// Threads: any. The listeners on the adapter run on the thread of the operation, the deletion's on
/// the root watch's strand. `m_lock` guards the client table and nothing else.
class QUENDO_API PooledManagedFolder : public ManagedFolder {
public:
    /// @param adapter made by the factory, raw
    /// @param systemId the factory's identifier
    /// @param interactor the one that the adapter was made with
    /// @param deleted called as the first slot of connectDeleted(), which misses nothing: also for
    ///        a root that goes before this returns
    /// @throws exception::InvalidArgumentError when either pointer is null;
    ///         platform::ChangeEventsSubscriptionException when the host's services refuse to watch
    ///         the root
    PooledManagedFolder(std::unique_ptr<CMAdapter> adapter, UString systemName,
                        std::string systemId, std::shared_ptr<CMApplicationInteractor> interactor,
                        const DeletedSlot& deleted = DeletedSlot([] {}));
    ~PooledManagedFolder() override;

    Path getRootFolder() const override;
    CMAdapter& getAdapter() const override;
    UString getSystemName() const override;
    std::string getSystemID() const override;
    CMInteractor& getCMInteractor() const override;
    CMStatusCache& getCache() const override;
    StatusTrigger& getStatusTrigger() const override;
    Terminator& getTerminator() const override;
    std::string getUUID() const override;
    void addClient(const std::string& clientId) override;
    void removeClient(const std::string& clientId) override;
    std::map<std::string, std::uint64_t> getClients() const override;
    std::unique_ptr<ScopedDisablement> disable() override;
    boost::signals2::connection connectDeleted(const DeletedSlot& slot) override;
    BranchStateCache* getBranchStateCache() const override;

    /// VFSFileChangeCacheUpdater::describe() of its updater.
    std::string describeUpdater() const { return m_updater.describe(); }

    /// What it was made with, as platform::completed() gives them.
    const platform::Services& getServices() const noexcept { return *m_services; }

private:
    using DeletedSignal = boost::signals2::signal<void(), platform::EachSlot>;
    using Connections = std::array<boost::signals2::scoped_connection, 4>;

    Connections onWhateverChanges(const std::function<void()>& listener) const;

    // Released in the reverse order: whoever tells first, then the cache, then the adapter.
    const std::shared_ptr<const platform::Services> m_services;
    const std::shared_ptr<CMApplicationInteractor> m_interactor;
    const std::shared_ptr<EventBroadcastingCMAdapter> m_adapter;
    const Path m_root; ///< the adapter's, for the destructor
    const std::shared_ptr<CMStatusCache> m_cache;
    const std::shared_ptr<BranchStateCache> m_branchState; ///< may be null
    const UString m_systemName;
    const std::string m_systemId;
    const std::string m_uuid;
    boost::signals2::scoped_connection m_statusConnection;
    boost::signals2::scoped_connection m_folderStatusConnection;
    boost::signals2::scoped_connection m_updateConnection;
    boost::signals2::scoped_connection m_triggerConnection; ///< the interactor's
    const Connections m_branchConnections;
    VFSFileChangeCacheUpdater m_updater;
    const std::shared_ptr<DeletedSignal> m_deletedSignal;
    const RootWatch m_rootWatch;
    ReentrantReadWriteLock m_lock;
    std::map<std::string, std::uint64_t> m_clients; ///< guarded by m_lock
};

} // namespace quendo
