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

#include <CLI/App.hpp>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
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

using States = std::map<Path, FileState>;

/// Empty for a path that is neither there nor known.
std::optional<LocalStatus> stateOf(const States& states, const Path& path) {
    const auto found = states.find(path);
    return found == states.end() ? std::nullopt : std::optional(found->second.getState());
}

template <class Predicate>
std::string count(const std::string& verb, const std::vector<Path>& files, Predicate isMeant) {
    const auto number = std::ranges::count_if(files, isMeant);
    return verb + " " + std::to_string(number) + (number == 1 ? " file\n" : " files\n");
}

} // namespace

CLI::App* AddCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("add", "Put files under source control");
    app->add_option("PATH", paths, "Files, or folders for all that is untracked in them")
        ->required();
    app->footer("Examples:\n"
                "  quendo add new.c                    one file\n"
                "  quendo add src                      all that is untracked below src");
    return app;
}

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
    const auto states = copy.adapter().getStatus(files);
    for (std::size_t i = 0; i < given.size(); ++i)
        if (!isFolder(given[i]) && !stateOf(states, given[i]))
            throw HostError(visiblePath(paths[i]) + " does not exist");
    management::CMActionManager(copy.adapter()).add(files, copy.root);
    session.finish(count("added", files, [&](const Path& file) {
        const auto state = stateOf(states, file);
        return state == LocalStatus::NotUnderSourceControl || state == LocalStatus::Deleted;
    }));
}

CLI::App* RemoveCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("remove", "Take files out of source control");
    app->add_option("FILE", files, "The files")->required();
    app->footer("A file that was only added stays on disk; others are deleted.\n"
                "Examples:\n"
                "  quendo remove old.c");
    return app;
}

void RemoveCommand::run() const {
    const auto [copy, given] = select(files, &WorkingCopy::ofFile);
    Session session(copy.interactor());
    const auto states = copy.adapter().getStatus(given);
    for (std::size_t i = 0; i < given.size(); ++i) {
        const auto state = stateOf(states, given[i]);
        if (!state || state == LocalStatus::NotUnderSourceControl || state == LocalStatus::Ignored)
            throw HostError(visiblePath(files[i]) + " is not under source control");
    }
    management::CMActionManager(copy.adapter()).remove(given);
    session.finish(count("removed", given, [&](const Path& file) {
        const auto state = stateOf(states, file);
        return state != LocalStatus::Deleted && state != LocalStatus::External &&
               state != LocalStatus::Unknown;
    }));
}

} // namespace quendo::host
