#include "host/CompletionCommand.h"

#include "host/Completion.h"
#include "host/StandardStreams.h"

#include <CLI/App.hpp>

namespace quendo::host {

CLI::App* CompletionCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("completion", "Print a shell's completion script");
    app->add_option("SHELL", shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember(completionShells()).description(""));
    app->footer("Examples:\n"
                "  eval \"$(quendo completion bash)\"\n"
                "  eval \"$(quendo completion zsh)\"\n"
                "  quendo completion fish | source");
    app->final_callback([this, &program] { script = completionScript(program, shell); });
    return app;
}

void CompletionCommand::run() const {
    writeOutput(script);
}

} // namespace quendo::host
