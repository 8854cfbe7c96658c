#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace quendo {

/// A working copy whose managed folder could not be made, and why. It lives as long as somebody
/// holds it; a later request tries again whether or not it does.
///
/// Threads: any; nothing in it changes.
class QUENDO_API FaultyFolder {
public:
    virtual ~FaultyFolder();

    /// Where the working copy is, and how many requests there have failed one after the other, this
    /// one included, since the last fault was let go.
    virtual std::pair<Path, std::uint64_t> getLocation() const = 0;

    /// The folder that was asked for, as it was given.
    virtual Path getFolder() const = 0;

    /// The client that asked.
    virtual std::string getClientId() const = 0;

    /// Tells one fault from another, also of the same working copy.
    virtual std::string getUUID() const = 0;

    /// What the request threw; never null.
    virtual std::exception_ptr getError() const = 0;
};

} // namespace quendo
