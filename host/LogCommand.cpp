#include "host/LogCommand.h"

#include "host/HostError.h"
#include "host/Pager.h"
#include "host/RevisionPrinter.h"
#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/adapter/RevisionHistory.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"

#include <CLI/App.hpp>

#include <any>
#include <functional>
#include <limits>
#include <utility>

namespace quendo::host {
namespace {

using Receiver = std::function<bool(std::unique_ptr<Revision>)>;

void readRevisions(const WorkingCopy& copy, std::optional<std::size_t> limit,
                   const Receiver& receive) {
    const auto subsystem = copy.adapter().getSubsystem(typeid(RevisionHistory));
    if (const auto* history = std::any_cast<RevisionHistory*>(&subsystem))
        return (*history)->readRevisions(copy.path, {.limit = limit}, receive);
    for (auto& revision : copy.adapter().listRevisions(copy.path, std::nullopt))
        if ((limit && (*limit)-- == 0) || !receive(std::move(revision)))
            return;
}

} // namespace

CLI::App* LogCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("log", "List revisions, newest first");
    app->add_option("PATH", path,
                    "A file, which may have been deleted, or a folder (default: the whole working "
                    "copy)");
    app->add_option("-n", limit, "At most N revisions")
        ->option_text("N")
        ->check(CLI::Range(1, std::numeric_limits<int>::max()).description(""));
    app->add_flag("--json", json, "One JSON object a line");
    app->add_flag("--no-pager", noPager, "Write to the terminal directly");
    app->footer(
        "On a terminal the list is shown with the program that PAGER names, else with less.\n"
        "Examples:\n"
        "  quendo log -n 10                    the last ten of the whole working copy\n"
        "  quendo log README.md                every revision, across renames\n"
        "  quendo log -n 1 --json README.md    the last one, for a program");
    return app;
}

void LogCommand::run() const {
    auto copy = path.empty() ? WorkingCopy::ofFolder(".") : WorkingCopy::ofPath(path);
    if (path.empty())
        copy.path = copy.root;
    Session session(copy.interactor());
    const auto pagerCommand = noPager ? std::nullopt : Pager::command();
    std::optional<Pager> pager;
    bool hasAny = false;
    const auto system = copy.systemName();
    const auto most = limit ? std::optional(static_cast<std::size_t>(*limit)) : std::nullopt;
    readRevisions(copy, most, [&](std::unique_ptr<Revision> revision) {
        if (!std::exchange(hasAny, true)) {
            session.finishFirst({});
            if (pagerCommand)
                pager.emplace(*pagerCommand);
        }
        const auto line = json ? jsonRevision(*revision, copy.root, system)
                               : humanRevision(*revision, copy.path, copy.root);
        if (pager)
            return pager->write(line);
        writeOutput(line);
        return true;
    });
    if (pager)
        pager->finish();
    if (!hasAny && !platform::services()->files->exists(copy.path))
        throw HostError(visiblePath(path) + " does not exist and has no revisions");
    session.finish(hasAny || json ? std::string()
                                  : visiblePath(path.empty() ? copy.root : Path::fromNative(path)) +
                                        " has no revisions\n");
}

} // namespace quendo::host
