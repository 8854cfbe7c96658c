#include "host/ExportCommand.h"

#include "host/JsonText.h"
#include "host/RevisionPrinter.h"
#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/platform/UString.h"

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

#include <unistd.h>

namespace quendo::host {

CLI::App* ExportCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("export", "Write a file as it was in a revision");
    app->add_option("FILE", file, "The file")->required();
    app->add_option("REVISION", revision, "Which revision: an id, or a name")->required();
    app->add_option("TARGET", target, "The file to write; must not exist")->required();
    app->add_flag("--json", json, "Print a JSON object that says what was done");
    app->footer("Examples:\n"
                "  quendo export README.md HEAD~1 /tmp/README.before.md\n"
                "  quendo export src/a.c 1f3a9c2 old-a.c");
    return app;
}

void ExportCommand::run() const {
    const Path destination = locate(target);
    const auto copy = WorkingCopy::ofFile(file);
    Session session(copy.interactor());
    const auto found = copy.adapter().findRevision(copy.path, toUString(revision));
    copy.adapter().exportRevision(copy.path, *found, destination);
    std::string report;
    if (json) {
        nlohmann::ordered_json line;
        line["system"] = copy.systemName();
        line["id"] = toUtf8(found->id);
        putPath(line, pathFromRoot(copy.path, copy.root));
        line["target"] = destination.toUtf8();
        report = jsonLine(line);
    } else if (isTerminal(STDOUT_FILENO)) {
        report = "wrote " + visiblePath(target) + ": " + visiblePath(file) + " as of " +
                 shortID(*found) + "\n";
    }
    session.finish(report);
}

} // namespace quendo::host
