#include "all.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iostream>

/// Whether `action` throws something that a handler for `Error` takes.
template <class Error>
bool throws(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error&) {
        return true;
    } catch (...) {
    }
    return false;
}

/// Made here, thrown again inside the library.
void again() {
    try {
        throw shared_quendo::core::VFSChangeEventsError(u"/folder");
    } catch (const quendo::exception::SourceControlException& error) {
        error.clone()->rethrow();
    }
}

/// A host's events, which refuse.
struct Refusing : quendo::platform::FolderWatcher {
    std::unique_ptr<Watch> watch(const quendo::Path&, Scope, Callback) override {
        throw quendo::platform::ChangeEventsSubscriptionException("no events here");
    }
    void fence(quendo::UniqueFunction<void()> reached) override { reached(); }
    quendo::platform::WatchHealth getHealth(const quendo::Path&) const override { return {}; }
    boost::signals2::connection connectHealthChanged(const HealthSlot&) override { return {}; }
};

/// In a working copy.
void refused() {
    quendo::platform::Services services;
    services.folderWatcher = std::make_shared<Refusing>();
    const auto here = quendo::Path::fromNative(std::filesystem::current_path().native());
    quendo::createNewManagedFolderProviderInstance(services)->provideFor(here);
}

void refusedWhy() {
    try {
        refused();
    } catch (const quendo::exception::SourceControlException& error) {
        std::rethrow_if_nested(error);
    }
}

/// Whether both name what is last in the history of the working copy that this runs in.
bool hasSubsystems() {
    const auto folder = quendo::getSingletonManagedFolderProvider().provideFor(
        quendo::Path::fromNative(std::filesystem::current_path().native()));
    const auto state = quendo::findInterface<quendo::BranchInformation>(*folder)->getBranchState();
    return quendo::findInterface<quendo::RevisionContent>(*folder)->getContent(
               folder->getRootFolder() / u"same", state.commit, 4) == "one\n";
}

/// Whether each is found where it is implemented, and nothing where it is not.
bool findsInterfaces() {
    const auto folder = quendo::getSingletonManagedFolderProvider().provideFor(
        quendo::Path::fromNative(std::filesystem::current_path().native()));
    struct None {
        virtual ~None() = default;
    };
    quendo::findInterface<quendo::EventBroadcastingCMAdapter>(*folder)->addUpdateListener([] {});
    return quendo::findInterface<quendo::CMStatusCacheFreshness>(*folder) != nullptr &&
           quendo::findInterface<quendo::BranchStateCache>(*folder) != nullptr &&
           quendo::findInterface<quendo::ApplicationInteractor>(*folder) != nullptr &&
           quendo::findInterface<quendo::FolderExternalChangeDetector>(*folder) != nullptr &&
           quendo::findInterface<quendo::ManagedFolderDecorator>(*folder) == folder.get() &&
           quendo::findInterface<None>(*folder) == nullptr;
}

/// Whether a host can put the layer that detects external changes around an adapter itself.
bool detects() {
    const auto interactor = std::make_shared<quendo::CMApplicationInteractor>();
    const auto here = quendo::Path::fromNative(std::filesystem::current_path().native());
    const auto adapter = quendo::makeExternalChangeDetectingCMAdapter(
        quendo::getCMAdapterFactory(quendo::Git{})->createAdapter(here, interactor), interactor);
    const auto detector = adapter->getSubsystem(typeid(quendo::FolderExternalChangeDetector));
    return std::any_cast<quendo::FolderExternalChangeDetector*>(detector) != nullptr;
}

int main() {
    const auto badPath = [] { quendo::Path(std::u16string_view(u"a\0b", 3)); };
    const auto executor = quendo::createStrandExecutor("border");
    const auto deadlock = [&] { executor->runSyncTask([&] { executor->runSyncTask([] {}); }); };
    const auto relative = [] {
        quendo::getSingletonManagedFolderProvider().provideFor(quendo::Path(u"a"));
    };
    const auto unknown = [] { quendo::getCMAdapterFactory("QVSVNAdapter"); };
    using quendo::exception::SourceControlException;
    const auto type = quendo::getCMAdapterType(*quendo::getCMAdapterFactory(quendo::Git{}));
    const bool results[] = {throws<quendo::InvalidPathError>(badPath),
                            throws<shared_quendo::core::VFSChangeEventsError>(again),
                            throws<quendo::platform::IMsgIDException>(again),
                            throws<quendo::ExecutorDeadlockError>(deadlock),
                            throws<shared_quendo::core::VFSChangeEventsError>(refused),
                            throws<quendo::platform::ChangeEventsSubscriptionException>(refusedWhy),
                            std::holds_alternative<quendo::Git>(type),
                            hasSubsystems(),
                            findsInterfaces(),
                            detects(),
                            throws<SourceControlException>(badPath),
                            throws<SourceControlException>(deadlock),
                            throws<SourceControlException>(relative),
                            throws<std::exception>(relative),
                            throws<SourceControlException>(refusedWhy),
                            throws<std::runtime_error>(unknown) &&
                                !throws<SourceControlException>(unknown)};
    try {
        badPath();
    } catch (const quendo::InvalidPathError& error) {
        std::cout << error.stackTrace();
    }
    for (const bool& result : results)
        std::cerr << "check " << &result - results << (result ? " holds\n" : " FAILED\n");
    return std::ranges::count(results, false) != 0;
}
