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

    WatchCommand watch;
    auto* watchApp =
        app.add_subcommand("watch", "Show what differs, and then every change as it happens");
    watchApp->add_option("PATH", watch.folder, "The folder to watch (default: this one)");
    watchApp->add_flag("--all", watch.selection.all, "Unmodified paths as well");
    watchApp->add_flag("--ignored", watch.selection.ignored, "Ignored paths as well");
    watchApp->add_flag("--json", watch.json, "One JSON object a line");
    watchApp->footer("It goes on until it is interrupted (Ctrl-C). What keeps it from telling the\n"
                     "truth stands on standard error.\n"
                     "Examples:\n"
                     "  quendo watch                        this folder\n"
                     "  quendo watch --json src             for a program");

    AddCommand add;
    auto* addApp = app.add_subcommand("add", "Put files under source control");
    addApp->add_option("PATH", add.paths, "Files, or folders for all that is untracked in them")
        ->required();
    addApp->footer("Examples:\n"
                   "  quendo add new.c                    one file\n"
                   "  quendo add src                      all that is untracked below src");

    RemoveCommand remove;
    auto* removeApp = app.add_subcommand("remove", "Take files out of source control");
    removeApp->add_option("FILE", remove.files, "The files")->required();
    removeApp->footer("A file that was only added stays on disk; others are deleted.\n"
                      "Examples:\n"
                      "  quendo remove old.c");

    UntrackedCommand untrackedCommand;
    auto* untrackedApp =
        app.add_subcommand("untracked", "List the files that are not under source control");
    untrackedApp->add_option("FOLDER", untrackedCommand.folder,
                             "The folder to look at (default: this one)");
    untrackedApp->add_flag("--json", untrackedCommand.json, "One JSON object a line");
    untrackedApp->add_flag("-z", untrackedCommand.nul,
                           "For scripts: raw paths from the root, each ended by a NUL");
    untrackedApp->footer("Examples:\n"
                         "  quendo untracked src                at or below src\n"
                         "  quendo untracked -z | xargs -0 ls   for a script, at the root");

    ClientsCommand clients;
    auto* clientsApp = app.add_subcommand("clients", "List managed folders and their clients");
    clientsApp->add_option("FOLDER", clients.folders, "Folders to be managed meanwhile");
    clientsApp->footer(
        "Every process manages folders of its own: only those named here are listed.\n"
        "Examples:\n"
        "  quendo clients . ~/other            both working copies");

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
    } else if (chosen == watchApp) {
        result.command = std::move(watch);
    } else if (chosen == addApp) {
        result.command = std::move(add);
    } else if (chosen == removeApp) {
        result.command = std::move(remove);
    } else if (chosen == untrackedApp) {
        if (untrackedCommand.json && untrackedCommand.nul)
            throw wrongUsage("--json and -z cannot go together");
        result.command = std::move(untrackedCommand);
    } else if (chosen == clientsApp) {
        result.command = std::move(clients);
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
