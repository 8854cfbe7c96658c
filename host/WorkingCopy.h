#pragma once

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/platform/Path.h"

#include <memory>
#include <string>

namespace quendo::host {

/// A path given on the command line and the working copy that it belongs to: the innermost one
/// that lies around it, as the factory provider recognises it.
///
/// Both functions throw HostError, naming the path as it was given, for one that cannot be used;
/// and what the factory throws for a working copy that cannot be opened.
struct WorkingCopy {
    std::shared_ptr<CMAdapterFactory> factory;
    std::unique_ptr<CMAdapter> adapter;
    Path root;
    Path path; ///< what was asked for, in the spelling of `root`: it or below it

    std::string systemName() const; ///< UTF-8

    /// @param folder an existing folder that can be read, as native bytes
    static WorkingCopy ofFolder(const std::string& folder,
                                const std::shared_ptr<CMApplicationInteractor>& interactor);

    /// @param file anything but a folder, even if it is not on disk any more. A symbolic link is
    /// meant
    ///             itself.
    static WorkingCopy ofFile(const std::string& file,
                              const std::shared_ptr<CMApplicationInteractor>& interactor);
};

/// The folder that the program was started in, canonical.
Path currentFolder();

/// A path as given, absolute and canonical but for its last part, which need not exist and is not
/// followed when it is a symbolic link.
Path locate(const std::string& argument);

} // namespace quendo::host
