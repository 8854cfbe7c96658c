// Does one operation of the library's on a working copy: OneOperation ROOT OPERATION FILE...
#include "quendo/adapter/CMAdapter.h"
#include "quendo/exception/SourceControlException.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <cstdio>
#include <string>

int main(int, char** arguments) {
    const auto root = quendo::Path::fromNative(arguments[1]);
    const std::string operation = arguments[2];
    std::vector<quendo::Path> files;
    for (char** file = arguments + 3; *file != nullptr; ++file)
        files.push_back(root.child(*file));
    try {
        const auto folder = quendo::getSingletonManagedFolderProvider().provideFor(root);
        auto& adapter = folder->getAdapter();
        operation == "add"       ? adapter.addFiles(files)
        : operation == "remove"  ? adapter.removeFiles(files)
        : operation == "move"    ? adapter.moveFile(files.at(0), files.at(1))
        : operation == "checkin" ? adapter.checkin(files, u"some")
                                 : adapter.uncheckout(files);
        return 0;
    } catch (const quendo::exception::SourceControlException& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
