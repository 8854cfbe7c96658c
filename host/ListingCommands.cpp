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

#include <nlohmann/json.hpp>

#include <algorithm>

namespace quendo::host {

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
