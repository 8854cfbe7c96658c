#include "quendo/pool/GetClients.h"

#include "quendo/platform/HostArray.h"
#include "quendo/pool/FolderDump.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <optional>
#include <utility>

namespace quendo {
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
            texts.push_back(toUString(describeClients(*folder, clients)));
    }
    const auto rows = texts.size();
    plhs[0] = new platform::HostArray(rows, 1, std::move(texts));
}

} // namespace quendo
