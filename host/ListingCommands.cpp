#include "host/ListingCommands.h"

#include "host/JsonText.h"
#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/StatusPrinter.h"
#include "host/WorkingCopy.h"
#include "quendo/management/ListUntrackedFiles.h"
#include "quendo/platform/HostArray.h"
#include "quendo/platform/UString.h"
#include "quendo/pool/GetClients.h"

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace quendo::host {

CLI::App* UntrackedCommand::describe(CLI::App& program) {
    auto* app =
        program.add_subcommand("untracked", "List the files that are not under source control");
    app->add_option("FOLDER", folder, "The folder to look at (default: this one)");
    app->add_flag("--json", json, "One JSON object a line");
    app->add_flag("-z", nul, "For scripts: raw paths from the root, each ended by a NUL");
    app->footer("Examples:\n"
                "  quendo untracked src                at or below src\n"
                "  quendo untracked -z | xargs -0 ls   for a script, at the root");
    app->final_callback([this] {
        if (json && nul)
            throw CLI::ValidationError("--json and -z cannot go together");
    });
    return app;
}

void UntrackedCommand::run() const {
    const auto copy = WorkingCopy::ofFolder(folder);
    Session session(copy.interactor());
    const auto current = currentFolder();
    std::string output;
    for (const auto& path : management::listUntrackedFiles(copy.path, *copy.folder)) {
        if (json) {
            nlohmann::ordered_json line;
            line["system"] = copy.systemName();
            putPath(line, pathFromRoot(path, copy.root));
            output += jsonLine(line);
        } else if (nul) {
            output += pathFromRoot(path, copy.root).toNative() + '\0';
        } else {
            output += nameFrom(current, copy.root, path) + "\n";
        }
    }
    session.finish(output);
}

CLI::App* ClientsCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("clients", "List managed folders and their clients");
    app->add_option("FOLDER", folders, "The folders to manage meanwhile (default: this one)");
    app->footer("Every process manages folders of its own: only those named here are listed.\n"
                "Examples:\n"
                "  quendo clients                      the working copy of this folder\n"
                "  quendo clients . ~/other            both working copies");
    return app;
}

void ClientsCommand::run() const {
    std::vector<WorkingCopy> copies;
    for (const auto& folder : folders)
        copies.push_back(WorkingCopy::ofFolder(folder));
    platform::HostArray* listed = nullptr;
    getClients(1, &listed, 0, nullptr);
    const std::unique_ptr<platform::HostArray> owned(listed);
    std::string output;
    for (const auto& text : owned->strings())
        output += (output.empty() ? "" : "\n") + toUtf8(text);
    writeOutput(output);
}

} // namespace quendo::host
