#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/SingleThreadedCMAdapter.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "quendo/factory/AllCMAdapterFactoryProvider.h"
#include "quendo/platform/Executor.h"

#include <filesystem>
#include <iostream>

// Prints what differs from the last commit in the working copy that the given folder lies in.
int main(int argc, char** argv) try {
    auto folder =
        quendo::Path::fromNative(std::filesystem::canonical(argc > 1 ? argv[1] : ".").native());

    const quendo::AllCMAdapterFactoryProvider provider;
    auto factory = provider.provide(folder);
    for (; !factory && !folder.parentPath().empty(); factory = provider.provide(folder))
        folder = folder.parentPath();
    if (!factory)
        throw std::runtime_error("no working copy here");

    auto interactor = std::make_shared<quendo::CMApplicationInteractor>();
    auto adapter = std::make_shared<quendo::SingleThreadedCMAdapter>(
        quendo::getSourceControlExecutor(), factory->createAdapter(folder, interactor));
    auto cache = quendo::createJobCombiningCache(adapter, interactor);
    cache->setFolderStatusFlag(true); // untracked and ignored files too
    cache->refreshAll();

    auto& changes = dynamic_cast<quendo::CMStatusCacheChanges&>(*cache);
    for (const auto& [path, state] : changes.listStatuses(adapter->getRootFolder()).states)
        if (state.getState() != quendo::LocalStatus::Unmodified && !state.isFolder())
            std::cout << quendo::toString(state.getState()) << ' ' << path.toUtf8() << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
