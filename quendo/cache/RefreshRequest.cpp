#include "quendo/cache/RefreshRequest.h"

#include <algorithm>
#include <utility>

namespace quendo {

bool isInside(const Path& path, const Path& folder) noexcept {
    return path == folder || path.isBelow(folder);
}

PendingPaths::PendingPaths(const RefreshRequest& request) {
    const auto add = [&](const Path& path) {
        const auto [at, isNew] = m_paths.try_emplace(path);
        if (isNew)
            at->second = {request.since, request.reason, request.folderStatusFlag,
                          false,         false,          m_nextOrder++};
    };
    if (request.isOfFolder())
        add(request.folder);
    for (const auto& file : request.files)
        add(file);
}

void PendingPaths::insert(Map::node_type node, std::uint64_t order) noexcept {
    node.mapped().order = order;
    const auto result = m_paths.insert(std::move(node));
    m_oldest.reset();
    if (result.inserted)
        return;
    auto& known = result.position->second;
    const auto& added = result.node.mapped();
    known.since = std::min(known.since, added.since);
    known.reason = std::min(known.reason, added.reason);
    known.folderStatusFlag = added.folderStatusFlag;
    known.isWanted = known.isWanted || added.isWanted;
}

void PendingPaths::absorb(PendingPaths& other) noexcept {
    const auto base = m_nextOrder;
    while (!other.m_paths.empty()) {
        auto node = other.m_paths.extract(other.m_paths.begin());
        const auto order = base + node.mapped().order;
        insert(std::move(node), order);
    }
    m_nextOrder = base + other.m_nextOrder;
    other = {};
}

const PendingPath* PendingPaths::find(const Path& path) const noexcept {
    const auto found = m_paths.find(path);
    return found != m_paths.end() ? &found->second : nullptr;
}

const PendingPath* PendingPaths::findAround(const Path& path) const {
    const PendingPath* first = nullptr;
    const auto note = [&](const PendingPath* found) {
        if (found != nullptr && (first == nullptr || found->since < first->since))
            first = found;
    };
    if (m_paths.size() <= 16) { // cheaper than to make the parents
        for (const auto& [folder, pending] : m_paths)
            note(isInside(path, folder) ? &pending : nullptr);
    } else {
        for (Path folder = path; !folder.empty(); folder = folder.parentPath())
            note(find(folder));
    }
    return first;
}

const PendingPath* PendingPaths::oldest() noexcept {
    if (!m_oldest) {
        for (const auto& [path, pending] : m_paths) {
            if (!m_oldest || pending.since < m_oldest->since)
                m_oldest = pending;
        }
    }
    return m_oldest ? &*m_oldest : nullptr;
}

std::vector<Path> PendingPaths::inOrder() const {
    std::vector<std::pair<std::uint64_t, Path>> ordered;
    ordered.reserve(m_paths.size());
    for (const auto& [path, pending] : m_paths)
        ordered.emplace_back(pending.order, path);
    std::ranges::sort(ordered, {}, [](const auto& each) { return each.first; });
    std::vector<Path> result;
    result.reserve(ordered.size());
    for (auto& [order, path] : ordered)
        result.push_back(std::move(path));
    return result;
}

void PendingPaths::markWanted(const Path& path) noexcept {
    if (const auto found = m_paths.find(path); found != m_paths.end())
        found->second.isWanted = true;
}

void PendingPaths::markCarriedOver(const Path& path) noexcept {
    if (const auto found = m_paths.find(path); found != m_paths.end())
        found->second.isCarriedOver = true;
}

void PendingPaths::erase(const Path& path) noexcept {
    if (m_paths.erase(path) != 0)
        m_oldest.reset();
}

void PendingPaths::eraseInside(const Path& folder) noexcept {
    // What lies in `folder` shares its text as a beginning, so it stands together but for
    // neighbours such as "folder-2".
    auto at = m_paths.lower_bound(folder);
    while (at != m_paths.end() && at->first.string().starts_with(folder.string()))
        at = isInside(at->first, folder) ? m_paths.erase(at) : std::next(at);
    m_oldest.reset();
}

PendingPaths commonFolders(const PendingPaths& paths, const Path& root, std::size_t most) {
    struct Deeper { // deepest first, then by text
        bool operator()(const Path& a, const Path& b) const noexcept {
            const auto depth = [](const Path& path) {
                return std::ranges::count(path.string(), u'/');
            };
            const auto ofA = depth(a), ofB = depth(b);
            return ofA != ofB ? ofA > ofB : a < b;
        }
    };
    std::map<Path, PendingPath, Deeper> folders;
    const auto add = [&](Path folder, const PendingPath& pending) {
        if (!folder.isBelow(root))
            folder = root;
        const auto [at, isNew] = folders.try_emplace(std::move(folder), pending);
        auto& known = at->second;
        known.since = std::min(known.since, pending.since);
        known.reason = std::min(known.reason, pending.reason);
        known.folderStatusFlag = known.folderStatusFlag || pending.folderStatusFlag;
        known.isWanted = true;
    };
    for (const auto& [path, pending] : paths.map())
        add(path.parentPath(), pending);
    while (folders.size() > most) {
        const auto deepest = folders.extract(folders.begin());
        add(deepest.key().parentPath(), deepest.mapped());
    }
    PendingPaths result;
    for (auto at = folders.rbegin(); at != folders.rend(); ++at) { // the outer ones first
        RefreshRequest request;
        const auto cover = std::ranges::find_if(
            result.m_paths, [&](const auto& each) { return at->first.isBelow(each.first); });
        request.folder = cover != result.m_paths.end() ? cover->first : at->first;
        request.folderStatusFlag = at->second.folderStatusFlag || (cover != result.m_paths.end() &&
                                                                   cover->second.folderStatusFlag);
        request.reason = at->second.reason;
        request.since = at->second.since;
        PendingPaths one(request);
        one.markWanted(request.folder);
        result.absorb(one);
    }
    return result;
}

} // namespace quendo
