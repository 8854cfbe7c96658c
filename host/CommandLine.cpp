#include "host/CommandLine.h"

#include "host/Completion.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <algorithm>
#include <limits>
#include <map>

namespace quendo::host {
namespace {

const std::map<std::string, platform::Severity> logLevels = {
    {"detail", platform::Severity::Detail},
    {"notice", platform::Severity::Notice},
    {"exception", platform::Severity::CaughtException},
};

} // namespace

Invocation parseCommandLine(int count, const char* const* arguments) {
    CLI::App app("Shows and explores the source-control state of a working copy.", "quendo");
    app.set_version_flag("--version", "quendo " QUENDO_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.require_subcommand(1, 1);
    app.footer("Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 130 interrupted.\n"
               "Examples for each command: quendo COMMAND --help");

    std::string level;
    const auto addLog = [&](CLI::App& to) {
        to.add_option("--log", level, "Log to standard error: detail, notice or exception")
            ->option_text("LEVEL")
            ->check(CLI::IsMember(logLevels));
    };
    addLog(app);

    StatusCommand status;
    auto* statusApp = app.add_subcommand("status", "Show what differs from unmodified");
    statusApp->add_option("PATH", status.folder, "The folder to look at (default: this one)");
    bool untracked = false;
    statusApp->add_flag("--all", status.selection.all, "Unmodified paths as well");
    statusApp->add_flag("--untracked", untracked, "Untracked paths only, or with --all");
    statusApp->add_flag("--ignored", status.selection.ignored, "Ignored paths as well");
    bool statusJson = false, porcelain = false, nul = false;
    statusApp->add_flag("--json", statusJson, "One JSON object a line");
    statusApp->add_flag("--porcelain", porcelain,
                        "For scripts: two columns, a tab, the path from the root");
    statusApp->add_flag("-z", nul, "With --porcelain: end records with a NUL");
    statusApp->footer("Examples:\n"
                      "  quendo status                       what differs at or below this folder\n"
                      "  quendo status --all --json src      every path below src, for a program\n"
                      "  quendo status --porcelain -z        the same, for a script");

    LogCommand log;
    auto* logApp = app.add_subcommand("log", "List the revisions of a file, newest first");
    logApp->add_option("FILE", log.file, "The file; it may have been deleted")->required();
    logApp->add_option("-n", log.limit, "At most N revisions")
        ->option_text("N")
        ->check(CLI::Range(1, std::numeric_limits<int>::max()).description(""));
    logApp->add_flag("--json", log.json, "One JSON object a line");
    logApp->footer("Examples:\n"
                   "  quendo log README.md                every revision, across renames\n"
                   "  quendo log -n 1 --json README.md    the last one, for a program");

    ExportCommand exportCommand;
    auto* exportApp = app.add_subcommand("export", "Write a file as it was in a revision");
    exportApp->add_option("FILE", exportCommand.file, "The file")->required();
    exportApp->add_option("REVISION", exportCommand.revision, "Which revision: an id, or a name")
        ->required();
    exportApp->add_option("TARGET", exportCommand.target, "The file to write; must not exist")
        ->required();
    exportApp->add_flag("--json", exportCommand.json,
                        "Print a JSON object that says what was done");
    exportApp->footer("Examples:\n"
                      "  quendo export README.md HEAD~1 /tmp/README.before.md\n"
                      "  quendo export src/a.c 1f3a9c2 old-a.c");

    std::string shell;
    auto* completionApp = app.add_subcommand("completion", "Print a shell's completion script");
    completionApp->add_option("SHELL", shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember(completionShells()).description(""));
    completionApp->footer("Examples:\n"
                          "  eval \"$(quendo completion bash)\"\n"
                          "  eval \"$(quendo completion zsh)\"\n"
                          "  quendo completion fish | source");

    for (auto* each : app.get_subcommands({})) {
        each->set_help_flag("-h,--help", "Print this help and exit");
        addLog(*each);
        for (auto* option : each->get_options())
            if (option->get_positional())
                option->type_name("");
    }

    const CLI::App* chosen = &app;
    const auto wrongUsage = [&](const std::string& message) {
        return UsageError(message + "; see quendo " +
                          (chosen == &app ? "" : chosen->get_name() + " ") + "--help");
    };
    Invocation result;
    try {
        app.parse(count, arguments);
    } catch (const CLI::CallForHelp&) {
        result.command = Notice{app.help()};
        return result;
    } catch (const CLI::CallForVersion& version) {
        result.command = Notice{std::string(version.what()) + "\n"};
        return result;
    } catch (const CLI::ParseError& error) {
        if (const auto parsed = app.get_subcommands(); !parsed.empty())
            chosen = parsed.front();
        throw wrongUsage(error.what());
    }
    if (!level.empty())
        result.logLevel = logLevels.at(level);
    chosen = app.get_subcommands().front();
    if (chosen == statusApp) {
        if (statusJson && porcelain)
            throw wrongUsage("--json and --porcelain cannot go together");
        if (nul && !porcelain)
            throw wrongUsage("-z needs --porcelain");
        status.selection.untrackedOnly = untracked && !status.selection.all;
        status.format = statusJson  ? StatusFormat::Json
                        : nul       ? StatusFormat::PorcelainNul
                        : porcelain ? StatusFormat::Porcelain
                                    : StatusFormat::Human;
        result.command = std::move(status);
    } else if (chosen == logApp) {
        result.command = std::move(log);
    } else if (chosen == exportApp) {
        result.command = std::move(exportCommand);
    } else {
        result.command = Notice{completionScript(app, shell)};
    }
    return result;
}

} // namespace quendo::host
