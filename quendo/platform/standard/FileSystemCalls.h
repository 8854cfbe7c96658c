#pragma once

#include "quendo/platform/standard/FolderListing.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace quendo::platform {

/// The system calls of the folder watcher that touch a file system, or tell where one is mounted.
/// Tests put in others, which hang or tell of mounts that are not there.
///
/// Threads: any.
class QUENDO_API FileSystemCalls {
public:
    virtual ~FileSystemCalls();

    /// inotify_add_watch()
    /// @return the watch descriptor, or the error negated
    virtual int addWatch(int inotify, const std::string& folder, std::uint32_t mask);

    /// FolderListing::take()
    virtual FolderListing list(const std::string& folder, bool withEntries,
                               const std::function<void()>& progress);

    /// The text of /proc/self/mountinfo.
    /// @param file that file, open, so that no descriptor is needed; negative where there is none
    virtual std::string mountTable(int file);

    /// How many watches this user may have, over all processes.
    virtual std::size_t watchLimit();

    /// Called for local paths only.
    virtual std::optional<std::string> readLink(const std::string& path);
};

} // namespace quendo::platform
