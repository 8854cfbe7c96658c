#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quendo::platform {

/// One mounted file system.
struct Mount {
    std::string id;    ///< tells it from another that is mounted at the same path later
    std::string point; ///< the path where it is mounted
    bool mayHang = false;

    friend bool operator==(const Mount&, const Mount&) = default;
};

/// The types of file systems, as the mount table names them, that other machines, or a process,
/// change unnoticed by this kernel, and whose system calls may hang when that machine or process
/// does not answer. "fuse" includes "fuse.sshfs".
QUENDO_API const std::vector<std::string>& remoteFileSystems();

/// The mount table of this process at one time. Reading it touches no mounted file system.
///
/// Threads: immutable.
class QUENDO_API MountTable {
public:
    /// Reads the target of a symbolic link; nothing for anything else.
    using ReadLink = std::function<std::optional<std::string>(const std::string&)>;

    /// @param text as in /proc/self/mountinfo
    /// @param remote types of file systems whose calls may hang
    explicit MountTable(std::string_view text,
                        const std::vector<std::string>& remote = remoteFileSystems());

    /// The file system that a look at `path`, not following its last component, may hang on;
    /// nothing when all are local. Symbolic links on the way are followed as far as they lie in
    /// local file systems, so no call made here hangs. Costs nothing but hashing when every mount
    /// is local.
    std::optional<Mount> findRemote(std::string path, const ReadLink& readLink) const;

    /// The paths where something was mounted or unmounted since `before`.
    std::vector<Path> changedSince(const MountTable& before) const;

private:
    std::set<std::string, std::less<>> m_lines;
    std::unordered_map<std::string, Mount> m_byPoint;
    bool m_hasRemote = false;
};

constexpr const char* mountTablePath = "/proc/self/mountinfo";

/// The text of the mount table; empty where there is none.
std::string readMountTable();

std::optional<std::string> readLink(const std::string& path);

/// Whether a look at `path` may hang, because it leads through a remote file system. Reads the
/// mount table: tens of microseconds.
QUENDO_API bool mayHang(const Path& path);

} // namespace quendo::platform
