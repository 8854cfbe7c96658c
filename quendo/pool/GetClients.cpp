#include "quendo/pool/GetClients.h"

#include "quendo/platform/HostArray.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <optional>
#include <sstream>
#include <utility>

namespace quendo {
namespace {

std::string textOf(const ManagedFolder& folder,
                   const std::map<std::string, std::uint64_t>& clients) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << "root: " << folder.getRootFolder().toUtf8() << '\n'
         << "system: " << toUtf8(folder.getSystemName()) << '\n'
         << "system id: " << folder.getSystemID() << '\n'
         << "UUID: " << folder.getUUID() << '\n';
    for (const auto& [identifier, count] : clients)
        text << "client: " << identifier << ' ' << count << '\n';
    return text.str();
}

} // namespace

void getClients(int nlhs, platform::HostArray* plhs[], int nrhs,
                const platform::HostArray* prhs[]) {
    if (nlhs > 1)
        throw platform::TooManyOutputsError();
    if (nrhs > 1)
        throw platform::TooManyInputsError();
    if (nrhs < 0)
        throw platform::TooFewInputsError();
    std::optional<std::string> wanted;
    if (nrhs == 1) {
        if (!prhs[0]->isString() || prhs[0]->size() != 1)
            throw platform::HostCallError("The input must be one string: a client's identifier.");
        wanted = toUtf8(prhs[0]->strings().front());
    }
    std::vector<UString> texts;
    for (const auto& folder : getSingletonManagedFolderProvider().getManagedFolders()) {
        const auto clients = folder->getClients();
        if (!wanted || clients.contains(*wanted))
            texts.push_back(toUString(textOf(*folder, clients)));
    }
    const auto rows = texts.size();
    plhs[0] = new platform::HostArray(rows, 1, std::move(texts));
}

} // namespace quendo
