#include "host/StatusCommand.h"

#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/WorkingCopy.h"

#include <CLI/App.hpp>

namespace quendo::host {
namespace {

std::string print(const StatusReport& report, StatusFormat format) {
    switch (format) {
    case StatusFormat::Json:
        return jsonStatus(report);
    case StatusFormat::Porcelain:
        return porcelainStatus(report, '\n');
    case StatusFormat::PorcelainNul:
        return porcelainStatus(report, '\0');
    case StatusFormat::Human:
        break;
    }
    return humanStatus(report, currentFolder(), wantsColours());
}

} // namespace

CLI::App* StatusCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("status", "Show what differs from unmodified");
    // Told apart only when all are there.
    const auto addFlag = [app](const char* flag, const std::string& text) {
        app->add_flag(flag, text);
    };
    app->add_option("PATH", folder, "The folder to look at (default: this one)");
    app->add_flag("--all", selection.all, "Unmodified paths as well");
    addFlag("--untracked", "Untracked paths only, or with --all");
    app->add_flag("--ignored", selection.ignored, "Ignored paths as well");
    addFlag("--json", "One JSON object a line");
    addFlag("--porcelain", "For scripts: two columns, a tab, the path from the root");
    addFlag("-z", "With --porcelain: end records with a NUL");
    app->footer("Examples:\n"
                "  quendo status                       what differs at or below this folder\n"
                "  quendo status --all --json src      every path below src, for a program\n"
                "  quendo status --porcelain -z        the same, for a script");
    app->final_callback([this, app] {
        const auto has = [app](const char* flag) { return app->count(flag) != 0; };
        if (has("--json") && has("--porcelain"))
            throw CLI::ValidationError("--json and --porcelain cannot go together");
        if (has("-z") && !has("--porcelain"))
            throw CLI::ValidationError("-z needs --porcelain");
        selection.untrackedOnly = has("--untracked") && !selection.all;
        format = has("--json")        ? StatusFormat::Json
                 : has("-z")          ? StatusFormat::PorcelainNul
                 : has("--porcelain") ? StatusFormat::Porcelain
                                      : StatusFormat::Human;
    });
    return app;
}

void StatusCommand::run() const {
    const auto copy = WorkingCopy::ofFolder(folder);
    Session session(copy.interactor());
    const StatusReport report{copy.systemName(), copy.root, copy.path,
                              copy.adapter().getStatus(copy.path, true), selection};
    session.finish(print(report, format));
}

} // namespace quendo::host
