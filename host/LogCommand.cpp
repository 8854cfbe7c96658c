#include "host/LogCommand.h"

#include "host/HostError.h"
#include "host/RevisionPrinter.h"
#include "host/Session.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <span>

namespace quendo::host {

void LogCommand::run() const {
    const auto copy = WorkingCopy::ofFile(file);
    Session session(copy.interactor());
    const auto found = copy.adapter().listRevisions(copy.path, std::nullopt);
    if (found.empty() && !platform::services()->files->exists(copy.path))
        throw HostError(visiblePath(file) + " does not exist and has no revisions");
    std::span revisions = found;
    if (limit)
        revisions = revisions.first(std::min(revisions.size(), static_cast<std::size_t>(*limit)));
    if (json)
        session.finish(jsonRevisions(revisions, copy.root, copy.systemName()));
    else if (revisions.empty())
        session.finish(visiblePath(file) + " has no revisions\n");
    else
        session.finish(humanRevisions(revisions, copy.path, copy.root));
}

} // namespace quendo::host
