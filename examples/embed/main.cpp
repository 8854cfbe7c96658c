#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/pool/FindInterface.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <filesystem>
#include <iostream>

// Prints what differs from the last commit in the working copy that the given folder lies in.
int main(int argc, char** argv) try {
    const auto place = std::filesystem::absolute(argc > 1 ? argv[1] : ".");
    const auto folder = quendo::getSingletonManagedFolderProvider().provideFor(
        quendo::Path::fromNative(place.native()), "embed");
    if (!folder)
        throw std::runtime_error("no working copy here");

    auto& cache = folder->getCache();
    cache.setFolderStatusFlag(true); // untracked and ignored files too
    cache.refreshAll();              // from here on it follows the disk and the repository

    auto& changes = *quendo::findInterface<quendo::CMStatusCacheChanges>(*folder);
    for (const auto& [path, state] : changes.listStatuses(folder->getRootFolder()).states)
        if (state.getState() != quendo::LocalStatus::Unmodified && !state.isFolder())
            std::cout << quendo::toString(state.getState()) << ' ' << path.toUtf8() << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
