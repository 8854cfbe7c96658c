#include "host/CommandLine.h"

#include "host/ActionCommands.h"
#include "host/CheckinCommands.h"
#include "host/CompletionCommand.h"
#include "host/ExportCommand.h"
#include "host/HelpCommand.h"
#include "host/ListingCommands.h"
#include "host/LogCommand.h"
#include "host/RevertCommands.h"
#include "host/StatusCommand.h"
#include "host/Suggestion.h"
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

const std::map<std::string, Colours> colourChoices = {
    {"auto", Colours::Auto},
    {"always", Colours::Always},
    {"never", Colours::Never},
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
                RevertCommand, DiscardCommand, ResolveCommand, LockCommand, IgnoreCommand,
                UntrackedCommand, ClientsCommand, LogCommand, ExportCommand, HelpCommand,
                CompletionCommand>();
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

/// What the parser says of it, in words of the program's own for what it does not know.
/// @param at the command, or the program when none was found
std::string wrongUsage(const CLI::App& program, const CLI::App& at, const CLI::ParseError& error) {
    const bool hasCommand = &at != &program;
    if (hasCommand && dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr)
        return error.what();
    for (const auto* app : {&program, &at})
        if (const auto words = app->remaining(); !words.empty()) {
            const auto word = unmasked(words.front());
            if (word.starts_with('-') && word.size() > 1)
                return unknownOption(program, *app, word);
            return hasCommand ? visiblePath(word) + " is one argument too many"
                              : unknownCommand(program, word);
        }
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
        return "a command is missing";
    return error.what();
}

} // namespace

Invocation parseCommandLine(int count, const char* const* arguments) {
    CLI::App app("Show and change the source-control state of a working copy.", "quendo");
    app.set_version_flag("--version", "quendo " QUENDO_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.require_subcommand(1, 1);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.footer("Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 130 interrupted,\n"
               "141 when nobody reads the output.\n"
               "Examples for each command: quendo help COMMAND");

    Invocation result;
    app.add_option("-C", result.folders, "Work in FOLDER; each -C starts from the one before it")
        ->type_name("FOLDER")
        ->allow_extra_args(false)
        ->transform(&unmasked);
    std::string level, colours = "auto";
    const auto addGlobal = [&](CLI::App& to) {
        to.add_option("--color", colours,
                      "Colour the output: always, never, or auto (on a terminal, unless NO_COLOR)")
            ->option_text("WHEN")
            ->check(CLI::IsMember(colourChoices));
        to.add_option("--log", level, "Log to standard error: detail, notice or exception")
            ->option_text("LEVEL")
            ->check(CLI::IsMember(logLevels));
    };
    addGlobal(app);

    std::map<const CLI::App*, std::unique_ptr<Command>> commands;
    for (auto& command : allCommands()) {
        auto* described = command->describe(app);
        described->group("Commands");
        described->set_help_flag("-h,--help", "Print this help and exit");
        addGlobal(*described);
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

    try {
        app.parse(std::move(words));
    } catch (const CLI::CallForHelp&) {
        const auto chosen = app.get_subcommands();
        result.notice = helpOf(app, chosen.empty() ? app : *chosen.front());
        return result;
    } catch (const CLI::CallForVersion& version) {
        result.notice = std::string(version.what()) + "\n";
        return result;
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        const auto& at = chosen.empty() ? app : *chosen.front();
        throw UsageError(wrongUsage(app, at, error) + "; see quendo " +
                         (chosen.empty() ? "" : at.get_name() + " ") + "--help");
    }
    if (!level.empty())
        result.logLevel = logLevels.at(level);
    result.colours = colourChoices.at(colours);
    result.command = std::move(commands.at(app.get_subcommands().front()));
    return result;
}

} // namespace quendo::host
