#include "quendo/platform/Services.h"

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/EventMgr.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/FactorySources.h"
#include "quendo/platform/FeatureFlagService.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/FolderDeletionWatcher.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/InstallationService.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/SettingsService.h"
#include "quendo/platform/UuidGenerator.h"
#include "quendo/platform/VirtualFileSystem.h"
#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "quendo/platform/standard/StandardDelayedTaskService.h"
#include "quendo/platform/standard/StandardEventMgr.h"
#include "quendo/platform/standard/StandardExecutorService.h"
#include "quendo/platform/standard/StandardFeatureFlagService.h"
#include "quendo/platform/standard/StandardFileUtilities.h"
#include "quendo/platform/standard/StandardFolderDeletionWatcher.h"
#include "quendo/platform/standard/StandardInstallationService.h"
#include "quendo/platform/standard/StandardMessageCatalogue.h"
#include "quendo/platform/standard/StandardSettingsService.h"
#include "quendo/platform/standard/StandardUuidGenerator.h"

#include <mutex>
#include <string>
#include <utility>

namespace quendo::platform {

DelayedTaskService::~DelayedTaskService() = default;
ExecutorService::~ExecutorService() = default;
FactorySources::~FactorySources() = default;
FeatureFlagService::~FeatureFlagService() = default;
FileUtilities::~FileUtilities() = default;
FolderDeletionWatcher::~FolderDeletionWatcher() = default;
FolderDeletionWatcherFactory::~FolderDeletionWatcherFactory() = default;
InstallationService::~InstallationService() = default;
SettingsGroup::~SettingsGroup() = default;
SettingsService::~SettingsService() = default;
UuidGenerator::~UuidGenerator() = default;

namespace {

struct State {
    std::mutex mutex;
    std::shared_ptr<const Services> current;
    std::source_location fixedAt;
    const char* fixedBy = "replaced for a test";
};

// Never destroyed: threads that outlive main() still ask for services.
State& state() {
    static State& instance = *new State;
    return instance;
}

const Services& standardServices() {
    static const Services& instance = *new Services{
        .settings = std::make_shared<StandardSettingsService>(),
        .featureFlags = std::make_shared<StandardFeatureFlagService>(),
        .executors = StandardExecutorService::instance(),
        .factorySources = nullptr,
        .messages = std::make_shared<StandardMessageCatalogue>(),
        .installation = std::make_shared<StandardInstallationService>(),
        .uuids = std::make_shared<StandardUuidGenerator>(),
        .files = std::make_shared<StandardFileUtilities>(),
        .folderWatcher = InotifyFolderWatcher::instance(),
        .deletionWatchers = std::make_shared<StandardFolderDeletionWatcherFactory>(),
        .delayedTasks = std::make_shared<StandardDelayedTaskService>(),
        .events = StandardEventMgr::instance(),
        .fileSystem = StandardEventMgr::instance(),
    };
    return instance;
}

template <class Service>
void fill(std::shared_ptr<Service>& member, const std::shared_ptr<Service>& standard) {
    if (member == nullptr)
        member = standard;
}

std::string shown(const std::source_location& where) {
    return std::string(where.file_name()) + ":" + std::to_string(where.line());
}

thread_local std::shared_ptr<const Services> ofThisThread;

} // namespace

std::shared_ptr<const Services> completed(Services services) {
    if ((services.events == nullptr) != (services.fileSystem == nullptr))
        throw exception::InvalidArgumentError(
            std::string("platform::Services has `") +
            (services.events != nullptr ? "events` and no `fileSystem`"
                                        : "fileSystem` and no `events`") +
            ": give both or neither, because subscriptions deliver what was published through the "
            "same service; one that forwards to the library's own goes with the other one of "
            "completed({})");
    const auto& standard = standardServices();
    if (const auto& watcher = services.folderWatcher; watcher != nullptr) {
        if (services.events == nullptr) {
            const auto events = std::make_shared<StandardEventMgr>(watcher);
            services.events = events;
            services.fileSystem = events;
        }
        if (services.deletionWatchers == nullptr)
            services.deletionWatchers =
                std::make_shared<StandardFolderDeletionWatcherFactory>(watcher);
    }
    fill(services.settings, standard.settings);
    fill(services.featureFlags, standard.featureFlags);
    fill(services.executors, standard.executors);
    fill(services.messages, standard.messages);
    fill(services.installation, standard.installation);
    fill(services.uuids, standard.uuids);
    fill(services.files, standard.files);
    fill(services.folderWatcher, standard.folderWatcher);
    fill(services.deletionWatchers, standard.deletionWatchers);
    fill(services.delayedTasks, standard.delayedTasks);
    fill(services.events, standard.events);
    fill(services.fileSystem, standard.fileSystem);
    return std::make_shared<const Services>(std::move(services));
}

void install(Services services, std::source_location where) {
    auto complete = completed(std::move(services));
    auto& global = state();
    const std::lock_guard lock(global.mutex);
    if (global.current != nullptr)
        throw ServicesInUseError(
            "The platform services are " + std::string(global.fixedBy) +
            (global.fixedAt.line() != 0 ? " at " + shown(global.fixedAt) : std::string()) +
            ": install them once, before anything else of the library");
    global.current = std::move(complete);
    global.fixedAt = where;
    global.fixedBy = "installed already";
}

std::shared_ptr<const Services> services(std::source_location where) {
    if (ofThisThread != nullptr)
        return ofThisThread;
    auto& global = state();
    const std::lock_guard lock(global.mutex);
    if (global.current == nullptr) {
        global.current = completed({});
        global.fixedAt = where;
        global.fixedBy = "in use already, first";
    }
    return global.current;
}

ThreadServices::ThreadServices(std::shared_ptr<const Services> services)
    : m_previous(ofThisThread) {
    if (services != nullptr)
        ofThisThread = std::move(services);
}

ThreadServices::~ThreadServices() {
    ofThisThread = std::move(m_previous);
}

ScopedServices::ScopedServices(Services services) {
    auto complete = completed(std::move(services));
    auto& global = state();
    const std::lock_guard lock(global.mutex);
    m_previous = std::exchange(global.current, std::move(complete));
}

ScopedServices::~ScopedServices() {
    auto& global = state();
    std::shared_ptr<const Services> replaced; // destroyed without the lock
    const std::lock_guard lock(global.mutex);
    replaced = std::exchange(global.current, std::move(m_previous));
}

} // namespace quendo::platform
