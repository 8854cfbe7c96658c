#include "host/ActionCommands.h"

#include "host/HostError.h"
#include "host/Session.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/management/CMActionManager.h"
#include "quendo/management/ListUntrackedFiles.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>

namespace quendo::host {
namespace {

struct Selection {
    WorkingCopy copy;
    std::vector<Path> paths;
};

/// The paths, which have to belong to one working copy.
Selection select(const std::vector<std::string>& arguments,
                 const std::function<WorkingCopy(const std::string&)>& open) {
    std::optional<Selection> result;
    for (const auto& argument : arguments) {
        auto copy = open(argument);
        if (result && copy.root != result->copy.root)
            throw HostError(visiblePath(arguments.front()) + " and " + visiblePath(argument) +
                            " belong to different working copies: name those of one at a time");
        auto path = copy.path;
        if (!result)
            result.emplace(Selection{std::move(copy), {}});
        result->paths.push_back(std::move(path));
    }
    return std::move(result).value();
}

bool isFolder(const Path& path) {
    const auto files = platform::services()->files;
    return files->isDirectory(path) && files->canonical(path) == managedPath(path);
}

std::string count(std::size_t number, const std::string& verb) {
    return verb + " " + std::to_string(number) + (number == 1 ? " file\n" : " files\n");
}

} // namespace

void AddCommand::run() const {
    const auto [copy, given] = select(paths, [](const std::string& path) {
        return isFolder(locate(path)) ? WorkingCopy::ofFolder(path) : WorkingCopy::ofFile(path);
    });
    Session session(copy.interactor());
    std::vector<Path> files;
    for (const auto& path : given) {
        if (isFolder(path))
            std::ranges::move(management::listUntrackedFiles(path, *copy.folder),
                              std::back_inserter(files));
        else
            files.push_back(path);
    }
    management::CMActionManager(copy.adapter()).add(files, copy.root);
    session.finish(count(files.size(), "added"));
}

void RemoveCommand::run() const {
    const auto [copy, given] = select(files, &WorkingCopy::ofFile);
    Session session(copy.interactor());
    management::CMActionManager(copy.adapter()).remove(given);
    session.finish(count(given.size(), "removed"));
}

} // namespace quendo::host
