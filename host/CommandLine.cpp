#include "host/CommandLine.h"

#include "host/ActionCommands.h"
#include "host/CheckinCommands.h"
#include "host/CompletionCommand.h"
#include "host/ExportCommand.h"
#include "host/ListingCommands.h"
#include "host/LogCommand.h"
#include "host/RevertCommands.h"
#include "host/StatusCommand.h"
#include "host/VisibleText.h"
#include "host/WatchCommand.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <map>
#include <vector>

namespace quendo::host {
namespace {

const std::map<std::string, platform::Severity> logLevels = {
    {"detail", platform::Severity::Detail},
    {"notice", platform::Severity::Notice},
    {"exception", platform::Severity::CaughtException},
};

template <class... Commands>
std::vector<std::unique_ptr<Command>> make() {
    std::vector<std::unique_ptr<Command>> commands;
    (commands.push_back(std::make_unique<Commands>()), ...);
    return commands;
}

/// In the order of the help.
std::vector<std::unique_ptr<Command>> allCommands() {
    return make<StatusCommand, WatchCommand, AddCommand, RemoveCommand, MoveCommand, CheckinCommand,
                RevertCommand, DiscardCommand, ResolveCommand, LockCommand, UntrackedCommand,
                ClientsCommand, LogCommand, ExportCommand, CompletionCommand>();
}

/// Where several paths may stand, the parser takes "[a,b]" for two of them. A NUL behind it, which
/// no argument holds, keeps it from that.
std::string masked(std::string argument) {
    if (argument.starts_with('[') && argument.ends_with(']'))
        argument += '\0';
    return argument;
}

std::string unmasked(std::string argument) {
    if (argument.ends_with('\0'))
        argument.pop_back();
    return argument;
}

} // namespace

Invocation parseCommandLine(int count, const char* const* arguments) {
    CLI::App app("Shows and changes the source-control state of a working copy.", "quendo");
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

    std::map<const CLI::App*, std::unique_ptr<Command>> commands;
    for (auto& command : allCommands()) {
        auto* described = command->describe(app);
        described->set_help_flag("-h,--help", "Print this help and exit");
        addLog(*described);
        for (auto* option : described->get_options())
            if (option->get_positional())
                option->type_name("");
        for (auto* option : described->get_options())
            if (option->get_expected_max() > 0)
                option->transform(&unmasked);
        commands[described] = std::move(command);
    }
    // The parser wants the last one first.
    std::vector<std::string> words;
    for (int i = count; i-- > 1;)
        words.push_back(masked(arguments[i]));

    Invocation result;
    try {
        app.parse(std::move(words));
    } catch (const CLI::CallForHelp&) {
        result.notice = app.help();
        return result;
    } catch (const CLI::CallForVersion& version) {
        result.notice = std::string(version.what()) + "\n";
        return result;
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        if (const auto unknown = app.remaining(); chosen.empty() && !unknown.empty())
            throw UsageError(visiblePath(unmasked(unknown.front())) +
                             " is no command; see quendo --help");
        throw UsageError(std::string(error.what()) + "; see quendo " +
                         (chosen.empty() ? "" : chosen.front()->get_name() + " ") + "--help");
    }
    if (!level.empty())
        result.logLevel = logLevels.at(level);
    result.command = std::move(commands.at(app.get_subcommands().front()));
    return result;
}

} // namespace quendo::host
