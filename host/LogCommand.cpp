#include "host/LogCommand.h"

#include "host/HostError.h"
#include "host/RevisionPrinter.h"
#include "host/Session.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <limits>
#include <span>

namespace quendo::host {

CLI::App* LogCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("log", "List the revisions of a file, newest first");
    app->add_option("FILE", file, "The file; it may have been deleted")->required();
    app->add_option("-n", limit, "At most N revisions")
        ->option_text("N")
        ->check(CLI::Range(1, std::numeric_limits<int>::max()).description(""));
    app->add_flag("--json", json, "One JSON object a line");
    app->footer("Examples:\n"
                "  quendo log README.md                every revision, across renames\n"
                "  quendo log -n 1 --json README.md    the last one, for a program");
    return app;
}

void LogCommand::run() const {
    const auto copy = WorkingCopy::ofFile(file);
    Session session(copy.interactor());
    const auto found = copy.adapter().listRevisions(copy.path, std::nullopt);
    if (found.empty() && !platform::services()->files->exists(copy.path))
        throw HostError(visiblePath(file) + " does not exist and has no revisions");
    std::span revisions = found;
    if (limit)
        revisions = revisions.first(std::min(revisions.size(), static_cast<std::size_t>(*limit)));
    if (json)
        session.finish(jsonRevisions(revisions, copy.root, copy.systemName()));
    else if (revisions.empty())
        session.finish(visiblePath(file) + " has no revisions\n");
    else
        session.finish(humanRevisions(revisions, copy.path, copy.root));
}

} // namespace quendo::host
