#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace quendo::platform {

/// A file of the host's virtual file system. A value; nothing is opened.
class File {
public:
    explicit File(Path path) noexcept : m_path(std::move(path)) {}
    const Path& path() const noexcept { return m_path; }

private:
    Path m_path;
};

/// A folder of it.
class Folder {
public:
    explicit Folder(Path path) noexcept : m_path(std::move(path)) {}
    const Path& path() const noexcept { return m_path; }

private:
    Path m_path;
};

using FileOrFolder = std::variant<File, Folder>;

/// Where something is, as an absolute IRI: "file://" and the bytes of the path, all but letters,
/// digits, "-._~" and "/" as "%XX". Every file name comes back as it was.
class QUENDO_API AbsoluteIRI {
public:
    /// @throws exception::InvalidArgumentError unless `text` is an absolute path in that form
    explicit AbsoluteIRI(std::string text);
    const std::string& toString() const noexcept { return m_text; }

private:
    std::string m_text;
};

/// @throws exception::InvalidArgumentError for a path that is not absolute
QUENDO_API AbsoluteIRI getLocation(const FileOrFolder& fileOrFolder);
QUENDO_API Path fromAbsoluteIRI(const AbsoluteIRI& location);

/// What happens to what is stored. The numbers are part of the contract.
enum class StorageEventKind {
    Opened = 0, ///< not told by the library's own service
    Closed = 1, ///< not told by it either
    Created = 2,
    Changed = 3, ///< content or attributes
    Deleted = 4,
    ContentsUnknown = 5, ///< of a folder: anything may have changed in it and below. Told to
                         ///< whoever subscribed to any kind for the folder
};

enum class WithRecursiveChangeEvents {
    Recursive = 0,    ///< for everything below as well; the library's own service refuses it
    NonRecursive = 1, ///< for what lies directly in the folder
};

/// The part of the host's virtual file system that tells changes. Threads: any.
class QUENDO_API VirtualFileSystem {
public:
    virtual ~VirtualFileSystem();

    /// Has events of these kinds published for `fileOrFolder`, until the last subscription to them
    /// ends. To be called before subscribing.
    /// @throws ChangeEventsSubscriptionException when that cannot be done
    virtual void publishEventsFor(const FileOrFolder& fileOrFolder,
                                  const std::vector<StorageEventKind>& kinds,
                                  WithRecursiveChangeEvents recursive) = 0;
};

} // namespace quendo::platform
