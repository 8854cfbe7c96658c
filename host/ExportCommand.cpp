#include "host/ExportCommand.h"

#include "host/JsonText.h"
#include "host/RevisionPrinter.h"
#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/platform/UString.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

namespace quendo::host {

void ExportCommand::run() const {
    const Path destination = locate(target);
    const auto copy = WorkingCopy::ofFile(file);
    Session session(copy.interactor());
    const auto found = copy.adapter().findRevision(copy.path, toUString(revision));
    copy.adapter().exportRevision(copy.path, *found, destination);
    std::string report;
    if (json) {
        nlohmann::ordered_json line;
        line["system"] = copy.systemName();
        line["id"] = toUtf8(found->id);
        putPath(line, pathFromRoot(copy.path, copy.root));
        line["target"] = destination.toUtf8();
        report = jsonLine(line);
    } else if (isTerminal(STDOUT_FILENO)) {
        report = "wrote " + visiblePath(target) + ": " + visiblePath(file) + " as of " +
                 shortID(*found) + "\n";
    }
    session.finish(report);
}

} // namespace quendo::host
