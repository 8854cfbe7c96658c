#pragma once

#include "quendo/platform/FolderWatcher.h"

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quendo::platform {

/// What a folder looked like at some time, to be compared with a later look.
///
/// A file may change again within the tick of the clock that gave it its last time stamp, after it
/// was listed, and the next listing shows no trace of that. So what was that young is told as
/// changed once more. The same holds for the folder itself.
struct QUENDO_API FolderListing {
    struct Entry {
        std::string name;
        ino_t inode = 0;
        mode_t mode = 0;
        off_t size = 0;
        std::int64_t modified = 0; ///< nanoseconds, as `changed`
        std::int64_t changed = 0;
        bool isYoung = false; ///< may change again without another time stamp
    };

    int error = 0; ///< of looking, ENOENT where there is no folder; nothing else is known then
    dev_t device = 0;
    ino_t inode = 0;
    bool hasEntries = false;
    std::int64_t modified = 0; ///< the folder itself, when an entry came or went last
    bool isYoung = false;
    std::vector<Entry> entries; ///< by name

    /// Looks at a folder, not at one that a symbolic link leads to. Without its entries only its
    /// identity is found out, for which it need not be readable.
    /// @param progress called when a system call has returned
    static FolderListing take(
        const std::string& folder, bool withEntries, const std::function<void()>& progress = [] {});

    /// Whether both looked at the same folder in the same way, so that their entries compare.
    bool isSameFolder(const FolderListing& other) const noexcept;

    /// Tells what became of the entries since an earlier look at the same folder: and
    /// ContentsUnknown, with no name, when one came and went in between, or went and came back.
    void compare(const FolderListing& before,
                 const std::function<void(FolderEvent::Kind, const std::string&)>& tell) const;
};

} // namespace quendo::platform
