#include "host/RevertCommands.h"

#include "host/ActionTargets.h"
#include "host/BranchPrinter.h"
#include "host/Session.h"
#include "host/VisibleText.h"
#include "quendo/exception/SourceControlException.h"

#include <CLI/App.hpp>

namespace quendo::host {
namespace {

/// Of a working copy within this one, only which of its commits is scheduled here is given up.
bool isGivenUp(const FileState& state) {
    if (!isChanged(state) || !state.isFolder())
        return isChanged(state);
    const auto* columns = state.findProperty(property::columns);
    return columns != nullptr && !columns->starts_with(u'.');
}

/// The operation that is still in progress after the changes have been given up, as "; ...".
std::string remaining(CMAdapter& adapter) {
    try {
        if (const auto* branches = branchInformationOf(adapter))
            if (const auto notice = operationNotice(branches->getBranchState(), true);
                !notice.empty())
                return "; " + notice;
    } catch (const exception::SourceControlException&) {
        // The changes have been given up all the same.
    }
    return {};
}

} // namespace

CLI::App* RevertCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("revert", "Give up the local changes of files");
    app->add_option("PATH", paths, "Files, or folders for all that is tracked in them")->required();
    app->add_flag("--dry-run", dryRun, "Only list what would be given up");
    app->footer("A file that was only added stays on disk, untracked.\n"
                "Examples:\n"
                "  quendo revert main.c                as in the last commit\n"
                "  quendo revert --dry-run src         which files that would be");
    return app;
}

void RevertCommand::run() const {
    const auto targets = ActionTargets::ofPaths(paths);
    Session session(targets.copy.interactor());
    const auto states = targets.states();
    targets.refuseUntracked(states);
    const auto files = pathsWhere(states, isGivenUp);
    if (dryRun)
        return session.finish(linesOf(files, states, targets.copy.root));
    targets.copy.adapter().uncheckout(targets.paths);
    session.finish(files.empty() ? "nothing to revert\n"
                                 : "reverted " + countOf(files.size()) + "\n");
}

CLI::App* DiscardCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("discard", "Give up all local changes of a working copy");
    app->add_option("PATH", path, "Anything in the working copy (default: this folder)");
    app->add_flag("--dry-run", dryRun, "Only list what would be given up");
    app->footer(
        "All changes in the working copy that holds PATH, not only those at PATH; a merge in\n"
        "progress is given up with them. A rebase stays in progress, without the commit at\n"
        "which it stopped. Untracked files stay, and so do files that were only added.\n"
        "Examples:\n"
        "  quendo discard --dry-run            which files that would be\n"
        "  quendo discard                      the whole working copy as in the last "
        "commit");
    return app;
}

void DiscardCommand::run() const {
    const auto copy = WorkingCopy::ofFolderOrFile(path);
    Session session(copy.interactor());
    const auto states = copy.adapter().getStatus(copy.root, false);
    const auto files = pathsWhere(states, isGivenUp);
    if (dryRun)
        return session.finish(linesOf(files, states, copy.root));
    copy.adapter().discardChanges();
    session.finish((files.empty() ? "nothing to discard in "
                                  : "discarded the changes of " + countOf(files.size()) + " in ") +
                   visiblePath(copy.root) + remaining(copy.adapter()) + "\n");
}

} // namespace quendo::host
