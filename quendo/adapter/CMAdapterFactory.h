#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <memory>
#include <string>

namespace quendo {

class CMAdapter;
class CMApplicationInteractor;

/// Recognises the working copies of one source-control system and makes adapters for them.
/// Any thread may call any operation, several at once. Whenever the library calls one of a factory
/// that a host gave it, a shared_ptr owns the factory, so shared_from_this() works there (not for a
/// factory that was injected without an owner).
class QUENDO_API CMAdapterFactory : public std::enable_shared_from_this<CMAdapterFactory> {
public:
    virtual ~CMAdapterFactory();

    /// The raw adapter for a folder that canManage() said yes to. Cheap: reads no file states and
    /// starts neither threads nor watches, because it is also called to find a root that is
    /// managed already.
    /// @throws exception::ForeignOwnerError, UnsupportedFormatError or DamagedRepositoryError for
    ///         a working copy that is there but cannot be used.
    virtual std::unique_ptr<CMAdapter>
    createAdapter(const Path& folder, std::shared_ptr<CMApplicationInteractor> interactor) = 0;

    /// The system's name for people: "Git", "SVN".
    virtual UString getSystemName() const = 0;

    /// Whether `folder` itself is the root of a working copy of this system. Looks whether the
    /// metadata are there and opens nothing, so a damaged working copy is recognised too and not
    /// answered for by one that lies around it. May throw.
    virtual bool canManage(const Path& folder) = 0;

    /// The name of the metadata folder or file in a working copy's root: ".git", ".svn".
    virtual UString getMetadataName() const = 0;

    /// Nothing when the adapters can work on this machine, else one line for people that says what
    /// is missing ("git 2.31 or newer is needed; …"). May start the program that it looks for.
    virtual UString getProblem() const = 0;

    /// The factory's identifier, compared byte for byte.
    virtual std::string getID() const = 0;
};

} // namespace quendo
