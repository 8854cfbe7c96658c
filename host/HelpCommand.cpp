#include "host/HelpCommand.h"

#include "host/StandardStreams.h"
#include "host/Suggestion.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

namespace quendo::host {

std::string helpOf(const CLI::App& program, const CLI::App& command) {
    const auto name = program.get_name();
    return command.get_formatter()->make_help(
        &command, &command == &program ? name : name + " " + command.get_name(),
        CLI::AppFormatMode::Normal);
}

CLI::App* HelpCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("help", "Print the help of the program or of a command");
    app->add_option("COMMAND", topic, "The command");
    app->footer("Examples:\n"
                "  quendo help                         all commands\n"
                "  quendo help checkin                 the same as quendo checkin --help");
    app->final_callback([this, &program] {
        const auto isMeant = [this](const CLI::App* command) {
            return command->get_name() == topic;
        };
        const auto found = program.get_subcommands(isMeant);
        if (found.empty() && !topic.empty())
            throw CLI::ValidationError(unknownCommand(program, topic));
        text = helpOf(program, found.empty() ? program : *found.front());
    });
    return app;
}

void HelpCommand::run() const {
    writeOutput(text);
}

} // namespace quendo::host
