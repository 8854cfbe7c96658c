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
#include "quendo/platform/ScopeGuard.h"
#include "quendo/platform/Services.h"
#include "quendo/pool/ClientRegisteredManagedFolder.h"
#include "quendo/pool/FaultyFolderRecord.h"
#include "quendo/pool/FolderTable.h"
#include "quendo/pool/PooledManagedFolder.h"
#include "quendo/pool/ViableLocation.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <tuple>
#include <typeinfo>
#include <unordered_map>
#include <utility>

// A request in steps: make the path canonical, find the factory that recognises the path or a
// folder above it, have it make the raw adapter, ask that for its root, and look the root up in the
// table (FolderTable), which decides who makes the folder. What the host gave for this provider
// (its Services) is in force on the thread where the library's own code works, and not while a
// factory or a listener is called: one that requests a folder of another provider would get it made
// with these services.

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

using SharedServices = std::shared_ptr<const platform::Services>;

std::shared_ptr<CMAdapterFactory> probe(const Path& folder, const SharedServices& services) {
    try {
        const AllCMAdapterFactoryProvider factories;
        return services != nullptr ? factories.provide(folder, services)
                                   : factories.provide(folder);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        return nullptr;
    }
}

/// Fills in what the factory makes of the root that it recognised.
void complete(ViableLocation& location, const Path& folder) {
    location.interactor = std::make_shared<CMApplicationInteractor>(ListenerFailure::SparesRest);
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
    explicit PooledManagedFolderProviderImpl(SharedServices services)
        : m_services(std::move(services)),
          m_table({[this](const auto& folder) { folderMade(folder); },
                   [this](const Path& root) { folderDeleted(root); },
                   [this](const Path& root) { folderReleased(root); }}) {}

    template <class Work>
    auto withServices(Work work) const {
        const platform::ThreadServices use(m_services);
        return work();
    }

    struct Outcome {
        std::shared_ptr<ManagedFolder> folder;
        std::shared_ptr<FaultyFolder> fault;
    };

    /// @throws exception::InvalidArgumentError for what no factory is asked about
    Outcome request(const Path& folder, const std::string& clientId) {
        checkClientId(clientId);
        QUENDO_LOG(Severity::Detail) << "Find viable location for folder: " << folder;
        const Path path = withServices([&] { return requestedPath(folder); });
        ViableLocation location;
        for (Path at = path; !at.empty() && location.factory == nullptr; at = at.parentPath()) {
            location.factory = probe(at, m_services);
            location.root = at;
        }
        if (location.factory == nullptr)
            return {};
        try {
            complete(location, path);
            return {provide(location, clientId), nullptr};
        } catch (const platform::ChangeEventsSubscriptionException&) {
            try {
                withServices([&] {
                    std::throw_with_nested(
                        shared_quendo::core::VFSChangeEventsError(UString(folder.string())));
                });
            } catch (...) {
                return {nullptr, recordFault(location, folder, clientId)};
            }
        } catch (...) {
            return {nullptr, recordFault(location, folder, clientId)};
        }
        return {};
    }

    std::vector<std::shared_ptr<ManagedFolder>> getManagedFolders() const {
        auto living = m_table.getFolders();
        std::vector<std::shared_ptr<ManagedFolder>> folders(std::make_move_iterator(living.begin()),
                                                            std::make_move_iterator(living.end()));
        std::ranges::sort(folders, {}, [](const auto& folder) { return folder->getRootFolder(); });
        return folders;
    }

    std::vector<std::shared_ptr<FaultyFolder>> getFaultyFolders() const {
        std::vector<std::shared_ptr<FaultyFolderRecord>> records;
        {
            const std::lock_guard lock(m_faultsMutex);
            for (const auto& [root, record] : m_faults)
                records.push_back(record);
        }
        std::vector<std::shared_ptr<FaultyFolder>> faults;
        for (const auto& record : records) {
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
    std::shared_ptr<ManagedFolder> provide(ViableLocation& location, const std::string& clientId) {
        auto folder = m_table.find(location.root);
        bool isNew = false;
        if (folder != nullptr) {
            QUENDO_LOG(Severity::Detail) << "Found cached entry with read lock.";
        } else {
            std::tie(folder, isNew) = m_table.obtain(location.root, [&](auto life) {
                QUENDO_LOG(Severity::Detail) << "Create new entry.";
                return createNewEntry(location, std::move(life));
            });
            if (!isNew) {
                QUENDO_LOG(Severity::Detail) << "Found cached entry with write lock.";
            }
        }
        std::shared_ptr<ManagedFolder> registered;
        {
            scope_guard announce([&] { m_table.announce(location.root); });
            if (!isNew)
                announce.dismiss();
            registered = registerClient(folder, clientId);
        }
        clientRegistered(clientId);
        return registered;
    }

    FolderTable::Folder createNewEntry(ViableLocation& location,
                                       std::shared_ptr<FolderTable::Life> life) {
        auto name = location.factory->getSystemName();
        auto id = location.factory->getID();
        const auto deleted = [weak = weak_from_this(), root = location.root, life] {
            if (const auto self = weak.lock())
                self->m_table.noteDeletion(root, life);
        };
        const auto release = [weak = weak_from_this(), root = location.root, life](auto* folder) {
            delete folder;
            if (const auto self = weak.lock())
                self->m_table.release(root, life);
        };
        return withServices([&]() -> FolderTable::Folder {
            return {std::make_unique<PooledManagedFolder>(std::move(location.adapter),
                                                          std::move(name), std::move(id),
                                                          location.interactor, deleted)
                        .release(),
                    release};
        });
    }

    /// In a handler of an exception.
    std::shared_ptr<FaultyFolder> recordFault(const ViableLocation& location, const Path& folder,
                                              const std::string& clientId) {
        const auto error = std::current_exception();
        std::shared_ptr<FaultyFolderRecord> record;
        {
            const std::lock_guard lock(m_faultsMutex);
            std::erase_if(m_faults, [&](const auto& entry) {
                // Who has taken a record out, as below, adds a fault to it in a moment.
                return entry.first != location.root && entry.second.use_count() == 1 &&
                       entry.second->isEmpty();
            });
            auto& entry = m_faults[location.root];
            if (entry == nullptr)
                entry = std::make_shared<FaultyFolderRecord>();
            record = entry;
        }
        auto fault =
            withServices([&] { return record->addFault(location, folder, clientId, error); });
        faultRecorded(fault);
        return fault;
    }

    const SharedServices m_services; ///< null: those of the calling thread
    FolderTable m_table;
    mutable std::mutex m_faultsMutex; ///< nothing of a host is called or destroyed under it
    std::unordered_map<Path, std::shared_ptr<FaultyFolderRecord>> m_faults; ///< guarded by it
};

namespace {

/// @param impl held, because a listener may destroy the provider
std::shared_ptr<ManagedFolder> provideFrom(std::shared_ptr<PooledManagedFolderProviderImpl> impl,
                                           const Path& folder, const std::string& clientId) {
    QUENDO_LOG(Severity::Detail) << " folder.string()=" << folder << " clientId=" << clientId;
    auto [provided, fault] = impl->request(folder, clientId);
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
    return provideFrom(m_impl, folder, clientId);
}

std::function<std::shared_ptr<ManagedFolder>(const Path&, const std::string&)>
PooledManagedFolderProvider::later(ManagedFolderProvider& provider) {
    // A class derived from this one may override provideFor().
    if (typeid(provider) == typeid(PooledManagedFolderProvider))
        return [impl = static_cast<PooledManagedFolderProvider&>(provider).m_impl](
                   const Path& folder, const std::string& clientId) {
            return provideFrom(impl, folder, clientId);
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
    const auto impl = m_impl; // a listener may destroy the provider
    return impl->request(folder, clientId).fault;
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
