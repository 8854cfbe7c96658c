#include "quendo/git/MetadataFilter.h"

#include "quendo/platform/Path.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace quendo::git {
namespace {

// Beside a working copy's own HEAD.
constexpr std::array<std::string_view, 10> ownFiles = {
    "HEAD",        "index",           "MERGE_HEAD",   "MERGE_MODE", "CHERRY_PICK_HEAD",
    "REVERT_HEAD", "config.worktree", "BISECT_START", "BISECT_LOG", "REBASE_HEAD"};
constexpr std::array<std::string_view, 4> ownFolders = {"rebase-merge", "rebase-apply", "sequencer",
                                                        "info"};
// Beside the shared refs.
constexpr std::array<std::string_view, 3> sharedFiles = {"config", "packed-refs", "shallow"};
constexpr std::array<std::string_view, 3> infoFiles = {"exclude", "attributes", "sparse-checkout"};

bool contains(const auto& names, std::string_view name) {
    return std::ranges::find(names, name) != names.end();
}

std::vector<std::string_view> partsOf(std::string_view path) {
    std::vector<std::string_view> parts;
    while (!path.empty()) {
        const auto end = std::min(path.find('/'), path.size());
        if (end != 0)
            parts.push_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return parts;
}

using Parts = std::vector<std::string_view>;

// A table is written under its name's end and then listed; "tables.list" is replaced as a whole.
bool isRefTable(const Parts& parts, std::size_t at) {
    return parts[at] == "reftable" &&
           (parts.size() == at + 1 || (parts.size() == at + 2 && (parts.back() == "tables.list" ||
                                                                  parts.back().ends_with(".ref"))));
}

bool isOfSubmodule(const Parts& parts, std::size_t at);

bool isOwn(const Parts& parts, std::size_t at) {
    const auto name = parts[at];
    const std::size_t left = parts.size() - at;
    if (left == 1)
        return contains(ownFiles, name) || name.starts_with("sharedindex.") ||
               contains(ownFolders, name) || name == "refs" || name == "modules" ||
               isRefTable(parts, at);
    if (name == "info")
        return left == 2 && contains(infoFiles, parts[at + 1]);
    if (name == "modules")
        return isOfSubmodule(parts, at + 1);
    return contains(ownFolders, name) || name == "refs" || isRefTable(parts, at);
}

bool isShared(const Parts& parts, std::size_t at) {
    const auto name = parts[at];
    if (name == "refs" || isRefTable(parts, at))
        return true;
    if (name == "info")
        return parts.size() == at + 1 ||
               (parts.size() == at + 2 && contains(infoFiles, parts[at + 1]));
    return parts.size() == at + 1 && contains(sharedFiles, name);
}

// A submodule's repository lies in modules/NAME, and a name may hold slashes: what follows the
// name is found from what it looks like.
bool isOfSubmodule(const Parts& parts, std::size_t at) {
    for (std::size_t i = at; i < parts.size(); ++i) {
        if (parts[i] == "modules" && i > at)
            return i + 1 == parts.size() || isOfSubmodule(parts, i + 1);
        if (parts[i] == "objects" || parts[i] == "logs" || parts[i] == "hooks")
            return false;
        if (i > at && (isOwn(parts, i) || isShared(parts, i)))
            return true;
    }
    // A folder on the way, or a file that is not wanted. Git's own files there have names that are
    // known; anything else may be a part of a submodule's name.
    static constexpr std::array<std::string_view, 5> uninteresting = {
        "COMMIT_EDITMSG", "FETCH_HEAD", "ORIG_HEAD", "description", "gc.log"};
    return !contains(uninteresting, parts.back());
}

} // namespace

std::function<bool(const Path&)> makeMetadataFilter(const std::string& commonDir,
                                                    const std::string& gitDir) {
    std::string own; // where this working copy's own files lie, relative; empty: at the top
    if (gitDir.starts_with(commonDir + "/"))
        own = gitDir.substr(commonDir.size() + 1);
    return [folder = Path::fromNative(commonDir), own](const Path& path) {
        if (path == folder)
            return true;
        if (!path.isBelow(folder))
            return false;
        const std::string relative = path.lexicallyRelative(folder).toNative();
        if (relative.ends_with(".lock"))
            return false;
        const auto parts = partsOf(relative);
        const auto ownParts = partsOf(own);
        if (parts.front() == "modules")
            return parts.size() == 1 || isOfSubmodule(parts, 1);
        if (isShared(parts, 0))
            return true;
        const auto common = std::min(parts.size(), ownParts.size());
        if (!std::equal(parts.begin(), parts.begin() + static_cast<std::ptrdiff_t>(common),
                        ownParts.begin()))
            return false;
        return parts.size() <= ownParts.size() || isOwn(parts, ownParts.size());
    };
}

bool isRelevantMetadata(std::string_view relative) {
    const auto parts = partsOf(relative);
    return !parts.empty() && !relative.ends_with(".lock") &&
           (isShared(parts, 0) || isOwn(parts, 0));
}

} // namespace quendo::git
