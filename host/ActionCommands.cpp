#include "host/ActionCommands.h"

#include "host/ActionTargets.h"
#include "host/HostError.h"
#include "host/Session.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "quendo/management/CMActionManager.h"
#include "quendo/management/IgnoreFiles.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <filesystem>
#include <set>

namespace quendo::host {
namespace {

namespace fs = std::filesystem;

bool isThere(const Path& path) {
    std::error_code unreadable;
    return fs::symlink_status(path.toNative(), unreadable).type() != fs::file_type::not_found;
}

/// Symbolic links are no folders.
bool isFolder(const Path& path) {
    std::error_code unreadable;
    return fs::symlink_status(path.toNative(), unreadable).type() == fs::file_type::directory;
}

} // namespace

CLI::App* AddCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("add", "Put files under source control");
    app->add_option("PATH", paths, "Files, or folders for all that is untracked in them")
        ->required();
    app->footer("Ignored files are refused; of a folder they are left out.\n"
                "Examples:\n"
                "  quendo add new.c                    one file\n"
                "  quendo add src                      all that is untracked below src");
    return app;
}

void AddCommand::run() const {
    const auto targets = ActionTargets::ofPaths(paths);
    Session session(targets.copy.interactor());
    const auto states = targets.states();
    const std::set<Path> named(targets.paths.begin(), targets.paths.end());
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const auto found = states.find(targets.paths[i]);
        const auto state =
            found == states.end() ? LocalStatus::Unmodified : found->second.getState();
        const auto refuse = [&](const char* why) { throw HostError(visiblePath(paths[i]) + why); };
        if (state == LocalStatus::Ignored)
            refuse(" is ignored; change the ignore rules first");
        if (state == LocalStatus::Conflicted)
            refuse(" is in conflict; edit it, and then: quendo resolve");
        if (state == LocalStatus::External)
            refuse(" belongs to a working copy of its own; work on it there");
    }
    std::vector<Path> files;
    for (const auto& [path, state] : states) {
        const bool isUntrackedFile =
            state.getState() == LocalStatus::NotUnderSourceControl && !state.isFolder();
        // What was removed and named is brought back; below a folder only what is still there.
        const bool isRemovedFile = state.getState() == LocalStatus::Deleted &&
                                   (named.contains(path) || (isThere(path) && !isFolder(path)));
        if (isUntrackedFile || isRemovedFile)
            files.push_back(path);
    }
    if (files.empty())
        return session.finish("nothing to add\n");
    management::CMActionManager(targets.copy.adapter()).add(files, targets.copy.root);
    session.finish("added " + countOf(files.size()) + "\n");
}

CLI::App* RemoveCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("remove", "Take files out of source control");
    app->add_option("PATH", paths, "Files, or folders for all that is tracked in them")->required();
    app->add_flag("--dry-run", dryRun, "Only list what would be removed");
    app->footer("A file that was only added stays on disk; others are deleted.\n"
                "Examples:\n"
                "  quendo remove old.c\n"
                "  quendo remove --dry-run src         which files that would be");
    return app;
}

void RemoveCommand::run() const {
    const auto targets = ActionTargets::ofPaths(paths);
    Session session(targets.copy.interactor());
    const auto states = targets.states();
    targets.refuseUntracked(states);
    const std::set<Path> named(targets.paths.begin(), targets.paths.end());
    for (const auto& [path, state] : states) {
        const bool isUnknown = state.getState() == LocalStatus::Unknown;
        const auto* columns = state.findProperty(property::columns);
        // One that is not a part of this one is left where it is, unless it is named.
        const bool isOther = state.findProperty(property::submodule) != nullptr ||
                             (state.getState() == LocalStatus::External &&
                              (columns == nullptr || *columns != u"??" || named.contains(path)));
        if (isUnknown || isOther)
            throw HostError(nameFrom(currentFolder(), targets.copy.root, path) +
                            (isUnknown ? " cannot be read"
                                       : " is a working copy of its own and is not removed"));
    }
    const auto files = pathsWhere(states, [](const FileState& state) {
        return !state.isFolder() && !isUntracked(state) &&
               state.getState() != LocalStatus::Deleted &&
               state.getState() != LocalStatus::External;
    });
    if (dryRun)
        return session.finish(linesOf(files, states, targets.copy.root));
    if (files.empty())
        return session.finish("nothing to remove\n");
    // First what may be refused, so that then nothing has been done.
    auto ordered = files;
    const auto added = std::ranges::stable_partition(ordered, [&](const Path& path) {
        return states.at(path).getState() != LocalStatus::Added;
    });
    management::CMActionManager manager(targets.copy.adapter());
    manager.remove({ordered.begin(), added.begin()});
    manager.remove({added.begin(), added.end()});
    const auto kept = std::ranges::count_if(added, &isThere);
    session.finish("removed " + countOf(files.size()) +
                   (kept == 0 ? ""
                              : "; " + std::to_string(kept) + (kept == 1 ? " stays" : " stay") +
                                    " on disk, untracked") +
                   "\n");
}

CLI::App* MoveCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("move", "Move or rename a file or a folder");
    app->add_option("SOURCE", source, "The file or folder")->required();
    app->add_option("DESTINATION", destination, "Its new name, or a folder to move it into")
        ->required();
    app->footer("What has been moved already, with other means, is only recorded.\n"
                "Examples:\n"
                "  quendo move old.c new.c             a new name\n"
                "  quendo move old.c lib               to lib/old.c, when the folder lib is there");
    return app;
}

void MoveCommand::run() const {
    const auto from = WorkingCopy::ofPath(source);
    auto target = destination;
    const auto to = locate(destination);
    std::error_code unreadable;
    // A file system that knows no case has one folder under both names.
    const bool isSame =
        isFolder(from.path) && fs::equivalent(from.path.toNative(), to.toNative(), unreadable);
    if (isThere(from.path) && isFolder(to) && !isSame)
        target += "/" + from.path.fileName().toNative();
    else if (destination.ends_with('/') && !isThere(to) && !isFolder(from.path))
        throw HostError(visiblePath(destination) + " is not a folder");
    const auto targets = ActionTargets::ofPaths({source, target});
    if (from.path == targets.paths.back())
        throw HostError(visiblePath(source) + " cannot be moved to itself");
    Session session(from.interactor());
    // The current folder may be moved away.
    const auto name = [&, current = currentFolder()](const Path& path) {
        return nameFrom(current, from.root, path);
    };
    const auto line = "moved " + name(from.path) + " to " + name(targets.paths.back()) + "\n";
    from.adapter().moveFile(from.path, targets.paths.back());
    session.finish(line);
}

CLI::App* LockCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("lock", "Make files ready for change");
    app->add_option("FILE", files, "The files")->required();
    app->footer("Git has no locks: files that are read-only become writable.\n"
                "Examples:\n"
                "  quendo lock model.bin               a file that Git LFS keeps read-only");
    return app;
}

void LockCommand::run() const {
    const auto targets = ActionTargets::ofFiles(files);
    Session session(targets.copy.interactor());
    targets.refuseUntracked(targets.states());
    const std::set<Path> unique(targets.paths.begin(), targets.paths.end());
    targets.copy.adapter().checkout({unique.begin(), unique.end()});
    session.finish("made " + countOf(unique.size()) + " ready for change\n");
}

CLI::App* IgnoreCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("ignore", "Ignore untracked files from now on");
    app->add_option("PATH", paths, "Untracked files, or folders with nothing tracked in them")
        ->required();
    app->footer("In Git, adds a rule for exactly each PATH to .gitignore in the working copy's "
                "root.\n"
                "Examples:\n"
                "  quendo ignore notes.txt             one file\n"
                "  quendo ignore build                 a folder and all that is ever in it");
    return app;
}

void IgnoreCommand::run() const {
    const auto targets = ActionTargets::ofPaths(paths);
    Session session(targets.copy.interactor());
    const auto states = targets.states();
    std::set<Path> wanted(targets.paths.begin(), targets.paths.end());
    std::erase_if(wanted, [&](const Path& path) {
        const auto found = states.find(path);
        return found != states.end() && found->second.getState() == LocalStatus::Ignored;
    });
    if (wanted.empty())
        return session.finish("nothing to ignore\n");
    management::ignoreFiles({wanted.begin(), wanted.end()}, *targets.copy.folder);
    session.finish("ignored " + std::to_string(wanted.size()) +
                   (wanted.size() == 1 ? " path\n" : " paths\n"));
}

} // namespace quendo::host
