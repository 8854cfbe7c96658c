#pragma once

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/platform/Path.h"
#include "quendo/pool/ManagedFolder.h"

#include <memory>
#include <string>

namespace quendo::host {

/// A path given on the command line and the managed folder of the working copy that it belongs to.
///
/// These functions throw HostError, naming the path as it was given, for one that cannot be used;
/// and what the provider throws for a working copy that cannot be opened.
struct WorkingCopy {
    std::shared_ptr<ManagedFolder> folder;
    Path root;
    Path path; ///< what was asked for, in the spelling of `root`: it or below it

    CMAdapter& adapter() const { return folder->getAdapter(); }
    std::shared_ptr<CMInteractor> interactor() const {
        return {folder, &folder->getCMInteractor()};
    }
    std::string systemName() const; ///< UTF-8

    /// @param folder an existing folder that can be read, as native bytes
    static WorkingCopy ofFolder(const std::string& folder);

    /// @param file anything but a folder, even if it is not on disk any more. A symbolic link is
    ///             meant itself.
    static WorkingCopy ofFile(const std::string& file);

    /// @param path a folder or a file as above. A folder that is a working copy of its own is meant
    ///             as that one.
    static WorkingCopy ofFolderOrFile(const std::string& path);

    /// @param path a file as above, or a folder. A folder that is a working copy of its own within
    ///             another one is meant as a part of that one, unless the program was started in
    ///             it.
    static WorkingCopy ofPath(const std::string& path);
};

/// The client that the program is for the library.
inline const std::string clientId = "quendo";

/// The folder that the program was started in, canonical.
Path currentFolder();

/// Makes another folder the current one. @throws HostError
void changeFolder(const std::string& folder);

/// A path as given, absolute and canonical but for its last part, which need not exist and is not
/// followed when it is a symbolic link.
Path locate(const std::string& argument);

} // namespace quendo::host
