#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Rethrowable.h"

#include <memory>
#include <source_location>

namespace quendo::platform {

class DelayedTaskService;
class EventMgr;
class ExecutorService;
class FactorySources;
class FeatureFlagService;
class FileUtilities;
class FolderDeletionWatcherFactory;
class FolderWatcher;
class InstallationService;
class MessageCatalogue;
class SettingsService;
class UuidGenerator;
class VirtualFileSystem;

/// What the library asks of its host, as one immutable bundle. A member left null stands for the
/// library's own implementation (see quendo/platform/standard), so a host sets only what it has.
/// Implementations are called from any thread.
///
/// `fileSystem` and `events` work as a pair: one without the other is refused. To wrap a service of
/// the library's own, take it from completed({}).
struct QUENDO_API Services {
    std::shared_ptr<SettingsService> settings;
    std::shared_ptr<FeatureFlagService> featureFlags;
    std::shared_ptr<ExecutorService> executors;
    std::shared_ptr<FactorySources> factorySources;
    std::shared_ptr<MessageCatalogue> messages;
    std::shared_ptr<InstallationService> installation;
    std::shared_ptr<UuidGenerator> uuids;
    std::shared_ptr<FileUtilities> files;
    std::shared_ptr<FolderWatcher> folderWatcher;
    std::shared_ptr<FolderDeletionWatcherFactory> deletionWatchers;
    std::shared_ptr<DelayedTaskService> delayedTasks;
    std::shared_ptr<EventMgr> events;
    std::shared_ptr<VirtualFileSystem> fileSystem;
};

/// Thrown by install() when services are in place already; names the place in the code that
/// installed them or that used them first.
class QUENDO_API ServicesInUseError : public exception::Rethrowable<ServicesInUseError> {
public:
    using Rethrowable::Rethrowable;
};

/// Puts the host's services in place, for the rest of the process. Call it once, before anything
/// else of the library: the first use of services() fixes them.
/// @throws ServicesInUseError on a second call, or after the first use; what completed() throws.
///         Nothing changes then.
QUENDO_API void install(Services services,
                        std::source_location where = std::source_location::current());

/// These services with the library's own for the members left null, `factorySources` excepted. The
/// library's event service and deletion watchers stand over the given `folderWatcher`.
/// @throws exception::InvalidArgumentError for only one of `fileSystem` and `events`
QUENDO_API std::shared_ptr<const Services> completed(Services services);

/// The services in force on this thread, every member set except `factorySources`, whose null
/// stands for the factories built into the library. Any thread; the bundle stays valid while it is
/// held.
QUENDO_API std::shared_ptr<const Services>
services(std::source_location where = std::source_location::current());

/// While it lives, services() answers these on this thread; what is made meanwhile keeps them.
/// Guards nest: destroy them in reverse order, on the thread that made them.
class QUENDO_API ThreadServices {
public:
    /// @param services as completed() gives them; null changes nothing
    explicit ThreadServices(std::shared_ptr<const Services> services);
    ~ThreadServices();
    ThreadServices(const ThreadServices&) = delete;
    ThreadServices& operator=(const ThreadServices&) = delete;

private:
    std::shared_ptr<const Services> m_previous;
};

/// Replaces the services while it lives, for tests; also after the first use. Members left null
/// stand for the library's own again. Guards nest: destroy them in reverse order, and only while
/// nothing else of the library runs.
class QUENDO_API ScopedServices {
public:
    explicit ScopedServices(Services services);
    ~ScopedServices();
    ScopedServices(const ScopedServices&) = delete;
    ScopedServices& operator=(const ScopedServices&) = delete;

private:
    std::shared_ptr<const Services> m_previous;
};

} // namespace quendo::platform
