#include "host/StatusCommand.h"

#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/WorkingCopy.h"

namespace quendo::host {
namespace {

std::string print(const StatusReport& report, StatusFormat format) {
    switch (format) {
    case StatusFormat::Json:
        return jsonStatus(report);
    case StatusFormat::Porcelain:
        return porcelainStatus(report, '\n');
    case StatusFormat::PorcelainNul:
        return porcelainStatus(report, '\0');
    case StatusFormat::Human:
        break;
    }
    return humanStatus(report, currentFolder(), wantsColours());
}

} // namespace

void StatusCommand::run() const {
    const auto copy = WorkingCopy::ofFolder(folder);
    Session session(copy.interactor());
    const StatusReport report{copy.systemName(), copy.root, copy.path,
                              copy.adapter().getStatus(copy.path, true), selection};
    session.finish(print(report, format));
}

} // namespace quendo::host
