#include "quendo/pool/PooledManagedFolder.h"

#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/adapter/StateDependencies.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"
#include "quendo/change_detection/UpdateResponses.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/UuidGenerator.h"

#include <utility>

namespace quendo {
namespace {

std::shared_ptr<EventBroadcastingCMAdapter>
layered(std::unique_ptr<CMAdapter> adapter,
        const std::shared_ptr<CMApplicationInteractor>& interactor) {
    const auto root = adapter ? adapter->getRootFolder() : Path();
    auto oneAtATime = std::make_unique<SingleThreadedCMAdapter>(getSourceControlExecutor(),
                                                                std::move(adapter), root);
    return std::make_shared<EventBroadcastingCMAdapter>(
        makeExternalChangeDetectingCMAdapter(std::move(oneAtATime), interactor),
        ListenerFailure::SparesRest);
}

/// `listener`, whose failures reach nobody: the operation that it is told of has succeeded.
template <class Listener>
auto logging(Listener listener) {
    return [listener = std::move(listener)](const auto&... arguments) {
        try {
            listener(arguments...);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    };
}

template <class Signal>
std::shared_ptr<Signal> connectedTo(const typename Signal::slot_type& slot) {
    auto signal = std::make_shared<Signal>();
    signal->connect(slot);
    return signal;
}

auto refreshed(std::weak_ptr<BranchStateCache> cache) {
    return [cache = std::move(cache)] {
        if (const auto locked = cache.lock())
            locked->refresh();
    };
}

VFSFileChangeCacheUpdater
startedUpdater(const std::shared_ptr<CMStatusCache>& cache,
               const std::shared_ptr<EventBroadcastingCMAdapter>& adapter) {
    VFSFileChangeCacheUpdater updater(cache, *adapter);
    if (const auto refusal = updater.rootRefusal())
        std::rethrow_exception(refusal);
    const auto dependencies = adapter->getSubsystem(typeid(StateDependencies));
    if (auto* const* found = std::any_cast<StateDependencies*>(&dependencies))
        updater.follow(std::shared_ptr<StateDependencies>(adapter, *found));
    return updater;
}

} // namespace

PooledManagedFolder::PooledManagedFolder(std::unique_ptr<CMAdapter> adapter, UString systemName,
                                         std::string systemId,
                                         std::shared_ptr<CMApplicationInteractor> interactor,
                                         const DeletedSlot& deleted)
    : m_services(platform::services()), m_interactor(std::move(interactor)),
      m_adapter(layered(std::move(adapter), m_interactor)), m_root(m_adapter->getRootFolder()),
      m_cache(createJobCombiningCache(m_adapter, m_interactor)),
      m_branchState(createBranchStateCache(m_adapter)), m_systemName(std::move(systemName)),
      m_systemId(std::move(systemId)), m_uuid(m_services->uuids->generate()),
      m_statusConnection(m_adapter->addStatusListener(logging(filesUpdateResponse(m_cache)))),
      m_folderStatusConnection(
          m_adapter->addFolderStatusListener(logging(foldersUpdateResponse(m_cache)))),
      m_updateConnection(m_adapter->addUpdateListener(logging(fullUpdateResponse(m_cache)))),
      m_triggerConnection(m_interactor->getStatusDispatcher().connect(
          logging(nonBlockingFullUpdateResponse(m_cache, m_root)))),
      m_branchConnections(onWhateverChanges(refreshed(m_branchState))),
      m_updater(startedUpdater(m_cache, m_adapter)),
      m_deletedSignal(connectedTo<DeletedSignal>(deleted)),
      m_rootWatch(
          m_root,
          [deleted = m_deletedSignal, branch = refreshed(m_branchState),
           update = nonBlockingFullUpdateResponse(m_cache, m_root, RefreshReason::RootReturned)] {
              (*deleted)();
              branch();
              update();
          },
          [branch = refreshed(m_branchState),
           update = nonBlockingFullUpdateResponse(m_cache, m_root, RefreshReason::RootReturned)] {
              branch();
              update();
          }) {}

/// Connects `listener` to all that announces changes of the working copy.
PooledManagedFolder::Connections
PooledManagedFolder::onWhateverChanges(const std::function<void()>& listener) const {
    const auto withPaths = [listener](const auto&) { listener(); };
    return {m_adapter->addStatusListener(withPaths), m_adapter->addFolderStatusListener(withPaths),
            m_adapter->addUpdateListener(listener),
            m_interactor->getStatusDispatcher().connect(listener)};
}

PooledManagedFolder::~PooledManagedFolder() {
    QUENDO_TRACE_SCOPE();
    try {
        QUENDO_LOG(Severity::Detail) << " folder.string()=" << m_root;
    } catch (...) { // there is no memory for the text
    }
}

Path PooledManagedFolder::getRootFolder() const {
    QUENDO_TRACE_SCOPE();
    return m_adapter->getRootFolder();
}

CMAdapter& PooledManagedFolder::getAdapter() const {
    QUENDO_TRACE_SCOPE();
    return *m_adapter;
}

UString PooledManagedFolder::getSystemName() const {
    QUENDO_TRACE_SCOPE();
    return m_systemName;
}

std::string PooledManagedFolder::getSystemID() const {
    QUENDO_TRACE_SCOPE();
    return m_systemId;
}

CMInteractor& PooledManagedFolder::getCMInteractor() const {
    QUENDO_TRACE_SCOPE();
    return *m_interactor;
}

CMStatusCache& PooledManagedFolder::getCache() const {
    QUENDO_TRACE_SCOPE();
    return *m_cache;
}

StatusTrigger& PooledManagedFolder::getStatusTrigger() const {
    QUENDO_TRACE_SCOPE();
    return m_interactor->getStatusTrigger();
}

Terminator& PooledManagedFolder::getTerminator() const {
    QUENDO_TRACE_SCOPE();
    return m_interactor->getTerminator();
}

std::string PooledManagedFolder::getUUID() const {
    QUENDO_TRACE_SCOPE();
    return m_uuid;
}

void PooledManagedFolder::addClient(const std::string& clientId) {
    QUENDO_TRACE_SCOPE();
    const auto hold = m_lock.write();
    ++m_clients[clientId];
}

void PooledManagedFolder::removeClient(const std::string& clientId) {
    QUENDO_TRACE_SCOPE();
    const auto hold = m_lock.write();
    const auto found = m_clients.find(clientId);
    if (found != m_clients.end() && --found->second == 0)
        m_clients.erase(found);
}

std::map<std::string, std::uint64_t> PooledManagedFolder::getClients() const {
    QUENDO_TRACE_SCOPE();
    const auto hold = m_lock.read();
    return m_clients;
}

std::unique_ptr<ManagedFolder::ScopedDisablement> PooledManagedFolder::disable() {
    QUENDO_TRACE_SCOPE();
    auto fileChanges = m_updater.disable();
    scope_guard externalChanges;
    const auto detector = m_adapter->getSubsystem(typeid(FolderExternalChangeDetector));
    if (const auto* found = std::any_cast<FolderExternalChangeDetector*>(&detector);
        found != nullptr && *found != nullptr)
        externalChanges = (*found)->disable();
    return std::make_unique<ScopedDisablement>(std::move(fileChanges), std::move(externalChanges));
}

BranchStateCache* PooledManagedFolder::getBranchStateCache() const {
    return m_branchState.get();
}

boost::signals2::connection PooledManagedFolder::connectDeleted(const DeletedSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_deletedSignal->connect(slot);
}

} // namespace quendo
