#include "quendo/pool/PooledManagedFolderProvider.h"

#include "quendo/exception/SourceControlException.h"
#include "quendo/exception/VFSChangeEventsError.h"
#include "quendo/factory/AllCMAdapterFactoryProvider.h"
#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/EachSlot.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/ReentrantReadWriteLock.h"
#include "quendo/platform/Services.h"
#include "quendo/pool/ClientRegisteredManagedFolder.h"
#include "quendo/pool/FaultyFolderRecord.h"
#include "quendo/pool/PooledManagedFolder.h"
#include "quendo/pool/ViableLocation.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <mutex>
#include <optional>
#include <typeinfo>
#include <unordered_map>
#include <utility>

// The pool's lock. Looking up takes the read side, making a folder the write side, which is kept
// until the client is registered, so that two requests for one root get the same folder. Nothing is
// destroyed under it that may be a last reference, because a folder that goes takes the write side
// on whatever thread it goes, and nothing is told under it. A folder that went takes its entry out
// of the table; an entry whose folder has gone counts as absent until then.

namespace quendo {

ManagedFolderProvider::~ManagedFolderProvider() = default;

namespace {

template <class Signature>
using Signal = boost::signals2::signal<Signature, platform::EachSlot>;

constexpr auto unknownClient = "UNKNOWN";

/// The path to look around.
Path requestedPath(const Path& path) {
    if (!path.isAbsolute())
        throw exception::InvalidArgumentError("\"" + path.toUtf8() +
                                              "\" is not an absolute path: give the whole path");
    return managedPath(path);
}

/// As the parent folder lists it: the last part is kept.
Path entryPath(const platform::FileUtilities& files, const Path& path) {
    const auto name = path.fileName();
    if (name.empty() || name.string() == u"." || name.string() == u"..")
        return files.canonical(path);
    return files.canonical(path.parentPath()) / name;
}

bool isIn(const Path& root, const Path& path) {
    return path == root || path.isBelow(root);
}

std::shared_ptr<CMAdapterFactory> probe(const Path& folder) {
    try {
        return AllCMAdapterFactoryProvider().provide(folder);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        return nullptr;
    }
}

/// Fills in what the factory makes of the root that it recognised.
void complete(ViableLocation& location, const Path& folder) {
    location.interactor = std::make_shared<CMApplicationInteractor>();
    location.adapter = location.factory->createAdapter(location.root, location.interactor);
    if (location.adapter == nullptr)
        throw exception::SourceControlException(
            "The adapter factory \"" + location.factory->getID() + "\" recognised " +
            location.root.toUtf8() + " and made no adapter for it");
    location.root = location.adapter->getRootFolder();
    if (!isIn(location.root, folder))
        throw exception::SourceControlException(
            folder.toUtf8() + " lies outside the files of its repository, which are in " +
            location.root.toUtf8());
}

} // namespace

class PooledManagedFolderProviderImpl
    : public std::enable_shared_from_this<PooledManagedFolderProviderImpl> {
public:
    explicit PooledManagedFolderProviderImpl(std::shared_ptr<const platform::Services> services)
        : m_services(std::move(services)) {}

    struct Outcome {
        std::shared_ptr<ManagedFolder> folder;
        std::shared_ptr<FaultyFolder> fault;
    };

    /// @throws exception::InvalidArgumentError for what no factory is asked about
    Outcome request(const Path& folder, const std::string& clientId) {
        const platform::ThreadServices use(m_services);
        checkClientId(clientId);
        QUENDO_LOG(Severity::Detail) << "Find viable location for folder: " << folder;
        const Path path = requestedPath(folder);
        ViableLocation location;
        for (Path at = path; !at.empty() && location.factory == nullptr; at = at.parentPath()) {
            location.factory = probe(at);
            location.root = at;
        }
        if (location.factory == nullptr)
            return {};
        try {
            complete(location, path);
            return {provide(location, clientId), nullptr};
        } catch (const platform::ChangeEventsSubscriptionException&) {
            try {
                std::throw_with_nested(
                    shared_quendo::core::VFSChangeEventsError(UString(folder.string())));
            } catch (...) {
                return {nullptr, recordFault(location, folder, clientId)};
            }
        } catch (...) {
            return {nullptr, recordFault(location, folder, clientId)};
        }
    }

    std::vector<std::shared_ptr<ManagedFolder>> getManagedFolders() const {
        std::vector<std::shared_ptr<ManagedFolder>> folders;
        {
            const auto hold = m_lock.read();
            folders.reserve(m_pool.size());
            for (const auto& [root, weak] : m_pool) {
                if (auto folder = weak.lock())
                    folders.push_back(std::move(folder));
            }
        }
        std::ranges::sort(folders, {}, [](const auto& folder) { return folder->getRootFolder(); });
        return folders;
    }

    std::vector<std::shared_ptr<FaultyFolder>> getFaultyFolders() const {
        std::vector<std::shared_ptr<FaultyFolder>> faults;
        const auto hold = m_lock.read();
        for (const auto& [root, record] : m_faults) {
            for (auto& fault : record->getFaults())
                faults.push_back(std::move(fault));
        }
        return faults;
    }

    Signal<void(std::shared_ptr<ManagedFolder>)> folderMade;
    Signal<void(const std::string&)> clientRegistered;
    Signal<void(std::shared_ptr<FaultyFolder>)> faultRecorded;
    Signal<void(const Path&)> folderDeleted;
    Signal<void(const Path&)> folderReleased;

private:
    std::shared_ptr<PooledManagedFolder> lookUp(const Path& root) const {
        const auto found = m_pool.find(root);
        return found != m_pool.end() ? found->second.lock() : nullptr;
    }

    std::shared_ptr<ManagedFolder> provide(ViableLocation& location, const std::string& clientId) {
        std::shared_ptr<PooledManagedFolder> folder;
        std::shared_ptr<ManagedFolder> registered;
        bool isNew = false;
        {
            const auto hold = m_lock.read();
            folder = lookUp(location.root);
        }
        if (folder != nullptr) {
            QUENDO_LOG(Severity::Detail) << "Found cached entry with read lock.";
            registered = registerClient(folder, clientId);
        } else {
            const auto hold = m_lock.write();
            folder = lookUp(location.root);
            if (folder != nullptr) {
                QUENDO_LOG(Severity::Detail) << "Found cached entry with write lock.";
            } else {
                QUENDO_LOG(Severity::Detail) << "Create new entry.";
                folder = createNewEntry(location);
                m_pool.insert_or_assign(location.root, folder);
                isNew = true;
            }
            registered = registerClient(folder, clientId);
        }
        if (isNew) {
            folder->connectDeleted([weak = weak_from_this(), root = location.root] {
                if (const auto self = weak.lock())
                    self->folderDeleted(root);
            });
            folderMade(registered);
        }
        clientRegistered(clientId);
        return registered;
    }

    std::shared_ptr<PooledManagedFolder> createNewEntry(ViableLocation& location) {
        const auto release = [weak = weak_from_this(), root = location.root](auto* folder) {
            delete folder;
            if (const auto self = weak.lock())
                self->released(root);
        };
        return {std::make_unique<PooledManagedFolder>(
                    std::move(location.adapter), location.factory->getSystemName(),
                    location.factory->getID(), location.interactor)
                    .release(),
                release};
    }

    /// On whatever thread the last reference was dropped.
    void released(const Path& root) noexcept {
        try {
            {
                const auto hold = m_lock.write();
                const auto found = m_pool.find(root);
                if (found != m_pool.end() && found->second.expired())
                    m_pool.erase(found);
            }
            folderReleased(root);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }

    /// In a handler of an exception.
    std::shared_ptr<FaultyFolder> recordFault(const ViableLocation& location, const Path& folder,
                                              const std::string& clientId) {
        const auto error = std::current_exception();
        std::shared_ptr<FaultyFolderRecord> record;
        std::vector<std::shared_ptr<FaultyFolder>> kept; // released behind the lock
        {
            const auto hold = m_lock.write();
            std::erase_if(m_faults, [&](const auto& entry) {
                auto faults = entry.second->getFaults();
                // Who has taken a record out, as below, adds a fault to it in a moment.
                const bool isDone =
                    faults.empty() && entry.first != location.root && entry.second.use_count() == 1;
                std::ranges::move(faults, std::back_inserter(kept));
                return isDone;
            });
            auto& entry = m_faults[location.root];
            if (entry == nullptr)
                entry = std::make_shared<FaultyFolderRecord>();
            record = entry;
        }
        auto fault = record->addFault(location, folder, clientId, error);
        faultRecorded(fault);
        return fault;
    }

    const std::shared_ptr<const platform::Services> m_services;
    ReentrantReadWriteLock m_lock;
    // Guarded by m_lock.
    std::unordered_map<Path, std::weak_ptr<PooledManagedFolder>> m_pool;
    std::unordered_map<Path, std::shared_ptr<FaultyFolderRecord>> m_faults;
};

namespace {

std::shared_ptr<ManagedFolder> provideFrom(PooledManagedFolderProviderImpl& impl,
                                           const Path& folder, const std::string& clientId) {
    QUENDO_LOG(Severity::Detail) << " folder.string()=" << folder << " clientId=" << clientId;
    auto [provided, fault] = impl.request(folder, clientId);
    if (fault != nullptr)
        std::rethrow_exception(fault->getError());
    return provided;
}

} // namespace

PooledManagedFolderProvider::PooledManagedFolderProvider(
    std::shared_ptr<const platform::Services> services)
    : m_impl(std::make_shared<PooledManagedFolderProviderImpl>(std::move(services))) {}

PooledManagedFolderProvider::~PooledManagedFolderProvider() = default;

std::shared_ptr<ManagedFolder>
PooledManagedFolderProvider::provideFor(const Path& folder, const std::string& clientId) {
    QUENDO_TRACE_SCOPE();
    return provideFrom(*m_impl, folder, clientId);
}

std::function<std::shared_ptr<ManagedFolder>(const Path&, const std::string&)>
PooledManagedFolderProvider::later(ManagedFolderProvider& provider) {
    // A class derived from this one may override provideFor().
    if (typeid(provider) == typeid(PooledManagedFolderProvider))
        return [impl = static_cast<PooledManagedFolderProvider&>(provider).m_impl](
                   const Path& folder, const std::string& clientId) {
            return provideFrom(*impl, folder, clientId);
        };
    return [&provider](const Path& folder, const std::string& clientId) {
        return provider.provideFor(folder, clientId);
    };
}

std::shared_ptr<ManagedFolder> PooledManagedFolderProvider::provideFor(const Path& folder) {
    QUENDO_TRACE_SCOPE();
    return provideFor(folder, unknownClient);
}

std::shared_ptr<FaultyFolder>
PooledManagedFolderProvider::provideFaultyFor(const Path& folder, const std::string& clientId) {
    QUENDO_TRACE_SCOPE();
    QUENDO_LOG(Severity::Detail) << " folder.string()=" << folder << " clientId=" << clientId;
    return m_impl->request(folder, clientId).fault;
}

std::shared_ptr<FaultyFolder> PooledManagedFolderProvider::provideFaultyFor(const Path& folder) {
    QUENDO_TRACE_SCOPE();
    return provideFaultyFor(folder, unknownClient);
}

std::vector<std::shared_ptr<ManagedFolder>> PooledManagedFolderProvider::getManagedFolders() const {
    QUENDO_TRACE_SCOPE();
    return m_impl->getManagedFolders();
}

std::vector<std::shared_ptr<FaultyFolder>> PooledManagedFolderProvider::getFaultyFolders() const {
    QUENDO_TRACE_SCOPE();
    return m_impl->getFaultyFolders();
}

boost::signals2::connection PooledManagedFolderProvider::connectFolderMade(const FolderSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->folderMade.connect(slot);
}

boost::signals2::connection
PooledManagedFolderProvider::connectClientRegistered(const ClientSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->clientRegistered.connect(slot);
}

boost::signals2::connection
PooledManagedFolderProvider::connectFaultRecorded(const FaultSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->faultRecorded.connect(slot);
}

boost::signals2::connection
PooledManagedFolderProvider::connectFolderDeleted(const PathSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->folderDeleted.connect(slot);
}

boost::signals2::connection
PooledManagedFolderProvider::connectFolderReleased(const PathSlot& slot) {
    QUENDO_TRACE_SCOPE();
    return m_impl->folderReleased.connect(slot);
}

ManagedFolderProvider& getSingletonManagedFolderProvider() {
    static auto& provider = *new PooledManagedFolderProvider;
    return provider;
}

std::unique_ptr<ManagedFolderProvider> createNewManagedFolderProviderInstance() {
    return std::make_unique<PooledManagedFolderProvider>();
}

std::unique_ptr<ManagedFolderProvider>
createNewManagedFolderProviderInstance(platform::Services services) {
    return std::make_unique<PooledManagedFolderProvider>(platform::completed(std::move(services)));
}

struct FolderRequest::State {
    using Done = UniqueFunction<void(std::shared_ptr<ManagedFolder>, std::exception_ptr)>;

    explicit State(Done callback) : done(std::move(callback)) {}

    Done take() noexcept {
        const std::lock_guard lock(mutex);
        return std::exchange(done, Done());
    }
    bool isWanted() {
        const std::lock_guard lock(mutex);
        return static_cast<bool>(done);
    }

    std::mutex mutex;
    Done done; ///< guarded by `mutex`; empty once it was taken
};

FolderRequest::FolderRequest() noexcept = default;
FolderRequest::FolderRequest(std::shared_ptr<State> state) noexcept : m_state(std::move(state)) {}
FolderRequest::FolderRequest(FolderRequest&& other) noexcept = default;

FolderRequest& FolderRequest::operator=(FolderRequest&& other) noexcept {
    const auto replaced = std::move(*this);
    m_state = std::move(other.m_state);
    return *this;
}

FolderRequest::~FolderRequest() {
    cancel();
}

void FolderRequest::cancel() noexcept {
    if (const auto state = std::exchange(m_state, nullptr))
        state->take();
}

std::future<std::shared_ptr<ManagedFolder>>
provideLater(ManagedFolderProvider& provider, const Path& folder, const std::string& clientId) {
    return createStrandExecutor("CMProvideFolder")
        ->runAsyncTask([provide = PooledManagedFolderProvider::later(provider), folder, clientId] {
            return provide(folder, clientId);
        });
}

FolderRequest
provideLater(ManagedFolderProvider& provider, const Path& folder, const std::string& clientId,
             UniqueFunction<void(std::shared_ptr<ManagedFolder>, std::exception_ptr)> done) {
    const auto state = std::make_shared<FolderRequest::State>(std::move(done));
    createStrandExecutor("CMProvideFolder")
        ->post([provide = PooledManagedFolderProvider::later(provider), folder, clientId, state] {
            if (!state->isWanted())
                return;
            std::shared_ptr<ManagedFolder> provided;
            std::exception_ptr error;
            try {
                provided = provide(folder, clientId);
            } catch (...) {
                error = std::current_exception();
            }
            if (auto callback = state->take())
                callback(std::move(provided), std::move(error));
        });
    return FolderRequest(state);
}

Path managedPath(const Path& path) {
    const auto files = platform::services()->files;
    return files->isDirectory(path) ? files->canonical(path) : entryPath(*files, path);
}

Path managedPath(const ManagedFolder& folder, const Path& path) {
    const auto files = platform::services()->files;
    const auto root = folder.getRootFolder();
    for (auto& candidate : {entryPath(*files, path), files->canonical(path)})
        if (isIn(root, candidate))
            return candidate;
    return managedPath(path);
}

} // namespace quendo
