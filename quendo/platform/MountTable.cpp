#include "quendo/platform/MountTable.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace quendo::platform {
namespace {

/// Spaces and the like stand as three octal digits behind a backslash.
std::string unescaped(const std::string& field) {
    std::string result;
    for (std::size_t at = 0; at < field.size(); ++at) {
        if (field[at] == '\\' && at + 3 < field.size()) {
            result += static_cast<char>(std::strtol(field.substr(at + 1, 3).c_str(), nullptr, 8));
            at += 3;
        } else {
            result += field[at];
        }
    }
    return result;
}

bool isOneOf(const std::vector<std::string>& types, const std::string& type) {
    return std::ranges::any_of(types, [&](const auto& each) {
        return type == each || (type.starts_with(each) && type[each.size()] == '.');
    });
}

/// A line: id, parent, device, root, mount point, options, any number of tags, "-", type, source.
Mount parseLine(const std::string& line, const std::vector<std::string>& remote) {
    std::istringstream stream(line);
    const std::vector<std::string> fields{std::istream_iterator<std::string>(stream), {}};
    if (fields.size() < 6)
        return {};
    const auto dash = std::find(fields.begin() + 6, fields.end(), "-");
    return {fields[0] + ' ' + fields[2], unescaped(fields[4]),
            dash != fields.end() && dash + 1 != fields.end() && isOneOf(remote, dash[1])};
}

} // namespace

const std::vector<std::string>& remoteFileSystems() {
    // "autofs" because a look below it waits for what it mounts.
    static const auto& types = *new std::vector<std::string>{
        "nfs",      "nfs4",   "cifs",   "smb3",   "smbfs",  "ncpfs",  "fuse",     "fuseblk",
        "virtiofs", "9p",     "afs",    "ceph",   "coda",   "lustre", "gpfs",     "gfs2",
        "ocfs2",    "vboxsf", "vmhgfs", "prl_fs", "beegfs", "pvfs2",  "orangefs", "autofs",
    };
    return types;
}

MountTable::MountTable(std::string_view text, const std::vector<std::string>& remote) {
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        auto mount = parseLine(line, remote);
        m_hasRemote |= mount.mayHang;
        if (!mount.point.empty())
            m_byPoint[mount.point] = std::move(mount); // the last one hides those below it
        m_lines.insert(std::move(line));
    }
}

std::optional<Mount> MountTable::findRemote(std::string path, const ReadLink& readLink) const {
    if (!m_hasRemote || !path.starts_with('/'))
        return std::nullopt;
    const Mount* found = nullptr;
    const auto pass = [&](const std::string& point) {
        if (const auto at = m_byPoint.find(point); at != m_byPoint.end() && at->second.mayHang)
            found = &at->second; // the innermost
    };
    pass("/");
    std::string passed; // without links
    int links = 0;
    for (std::size_t at = 0; at < path.size();) {
        const auto begin = path.find_first_not_of('/', at);
        if (begin == std::string::npos)
            break;
        at = std::min(path.find('/', begin), path.size());
        const auto name = std::string_view(path).substr(begin, at - begin);
        if (name == ".")
            continue;
        if (name == "..") {
            passed.resize(passed.empty() ? 0 : passed.rfind('/'));
            continue;
        }
        const auto length = passed.size();
        passed.append("/").append(name);
        pass(passed);
        // Behind a remote file system a look at a link might hang itself.
        const bool isLast = path.find_first_not_of('/', at) == std::string::npos;
        if (found != nullptr || isLast)
            continue;
        if (const auto target = readLink(passed)) {
            constexpr int mostLinks = 40; // the kernel's limit
            if (++links > mostLinks)
                break;
            passed.resize(target->starts_with('/') ? 0 : length);
            path = *target + '/' + path.substr(at);
            at = 0;
        }
    }
    return found != nullptr ? std::optional(*found) : std::nullopt;
}

std::vector<Path> MountTable::changedSince(const MountTable& before) const {
    std::vector<std::string> changed;
    std::ranges::set_symmetric_difference(before.m_lines, m_lines, std::back_inserter(changed));
    std::vector<Path> result;
    for (const auto& line : changed)
        if (const auto point = parseLine(line, {}).point; !point.empty())
            result.push_back(Path::fromNative(point));
    return result;
}

std::string readMountTable() {
    std::ifstream table(mountTablePath);
    return {std::istreambuf_iterator<char>(table), {}};
}

std::optional<std::string> readLink(const std::string& path) {
    std::array<char, 4096> target; // NOLINT: readlink() fills it
    const auto length = ::readlink(path.c_str(), target.data(), target.size());
    if (length <= 0)
        return std::nullopt;
    return std::string(target.data(), static_cast<std::size_t>(length));
}

bool mayHang(const Path& path) {
    return MountTable(readMountTable()).findRemote(path.toNative(), readLink).has_value();
}

} // namespace quendo::platform
