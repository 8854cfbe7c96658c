#include "host/IgnoreCommand.h"

#include "host/ActionTargets.h"
#include "host/Session.h"
#include "quendo/management/IgnoreFiles.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <set>

namespace quendo::host {

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
