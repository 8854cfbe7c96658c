#include "quendo/cache/TransactionalFileCache.h"

#include "quendo/adapter/FileState.h"

#include <algorithm>

// What a transaction is.
//
// The contents are two maps that share their parts with their copies (PathTrie): the state of every
// path, and what every folder holds. A transaction takes a copy, changes it beside the readers, and
// exchanges it for the contents under the write side of the lock: two addresses and two numbers,
// whatever the size of the change or of the cache. So readers see all of a change or none of it,
// and wait for no more than the exchange. What the exchange leaves behind, parts that no version
// shares any more, is freed after the lock has been released.
//
// A reader of one path works under the read side of the lock and counts no references, so it writes
// to no memory that another reader uses but the lock's own. A reader of many takes a version, which
// is such a copy, and goes through it without the lock: a listing of everything holds nobody up,
// and is not held up, however long it takes. It costs the memory of what has changed since.
//
// Folders. A folder is known when something is cached at any depth below it. It holds its counts,
// direct and below, and its children: the paths with it as parent that are cached, or are known
// folders, or both. A change of an entry is noted in its folder only; commit() adds up what came
// together and carries the sums up to the root of the file system, each folder once, the deepest
// first. A folder whose last child has gone goes too. The children are what makes the refresh of
// one folder independent of the size of the cache: what lies below it is found by going down.

// Texts. The store keeps its own copies of the texts of paths. An answer's texts lie between its
// other parts in memory; keeping them would keep the pages of all of it.

namespace quendo {
namespace {

/// Whether `folder` is the parent of `path`, without making that.
bool isDirectlyIn(const Path& path, const Path& folder) noexcept {
    const auto text = path.string();
    return path.isBelow(folder) && text.find(u'/', folder.string().size() + 1) == text.npos;
}

} // namespace

template <class State>
struct TransactionalFileCache<State>::Folder {
    struct Child {};

    FolderSummary summary;
    PathTrie<Child> children;
};

template <class State>
TransactionalFileCache<State>::TransactionalFileCache() = default;
template <class State>
TransactionalFileCache<State>::~TransactionalFileCache() = default;

template <class State>
std::optional<State> TransactionalFileCache<State>::find(const Path& path) const {
    const auto hold = m_lock.read();
    const auto* entry = m_contents.states.find(path);
    return entry != nullptr ? std::optional<State>(entry->value) : std::nullopt;
}

template <class State>
typename TransactionalFileCache<State>::Version TransactionalFileCache<State>::version() const {
    const auto hold = m_lock.read();
    return Version(m_contents);
}

template <class State>
const State* TransactionalFileCache<State>::Version::find(const Path& path) const noexcept {
    const auto* entry = m_contents.states.find(path);
    return entry != nullptr ? &entry->value : nullptr;
}

template <class State>
void TransactionalFileCache<State>::Version::forEachIn(
    const Path& folder, const std::function<void(const Path&, const State&)>& visit) const {
    std::vector<Path> paths{folder};
    while (!paths.empty()) {
        const Path path = std::move(paths.back());
        paths.pop_back();
        if (const auto* entry = m_contents.states.find(path))
            visit(entry->path, entry->value);
        if (const auto* known = m_contents.folders.find(path))
            known->value->children.forEach(
                [&](const Path& child, auto) { paths.push_back(child); });
    }
}

template <class State>
FolderSummary TransactionalFileCache<State>::Version::summaryOf(const Path& folder) const noexcept {
    const auto* known = m_contents.folders.find(folder);
    return known != nullptr ? known->value->summary : FolderSummary();
}

template <class State>
std::vector<Path> TransactionalFileCache<State>::Version::folders() const {
    std::vector<Path> result;
    m_contents.folders.forEach([&](const Path& path, const auto& folder) {
        if (folder->summary.direct != StatusCounts())
            result.push_back(path);
    });
    return result;
}

template <class State>
TransactionalFileCache<State>::Transaction::Transaction(TransactionalFileCache& cache,
                                                        bool recordsChanges)
    : m_cache(cache), m_recordsChanges(recordsChanges), m_turn(cache.m_writers) {
    const auto hold = cache.m_lock.read();
    m_contents = cache.m_contents;
}

template <class State>
bool TransactionalFileCache<State>::Transaction::put(const Path& path, const State& state) {
    ++m_touched;
    const auto* entry = m_contents.states.find(path);
    if (entry != nullptr && entry->value == state)
        return true;
    const Path own = entry == nullptr ? path.detached() : entry->path;
    note(own, entry != nullptr ? &entry->value : nullptr, &state);
    m_contents.states.put(own, state);
    return entry != nullptr;
}

template <class State>
void TransactionalFileCache<State>::Transaction::erase(const Path& path) {
    ++m_touched;
    const auto* entry = m_contents.states.find(path);
    if (entry == nullptr)
        return;
    note(entry->path, &entry->value, nullptr);
    m_contents.states.erase(path);
}

template <class State>
void TransactionalFileCache<State>::Transaction::merge(const std::map<Path, State>& answer) {
    for (const auto& [path, state] : answer)
        put(path, state);
}

template <class State>
void TransactionalFileCache<State>::Transaction::replace(const Path& folder,
                                                         const std::map<Path, State>& answer) {
    const auto isInside = [&](const Path& path) { return path == folder || path.isBelow(folder); };
    const Version before(m_contents);
    const std::size_t below = before.summaryOf(folder).below.total();
    std::size_t left = below + (before.find(folder) != nullptr);
    std::unordered_map<Path, std::size_t> answered; // of what lay in the folder, by parent
    auto last = answered.end();
    for (const auto& [path, state] : answer) {
        if (!put(path, state) || !isInside(path))
            continue;
        --left;
        if (last == answered.end() || !isDirectlyIn(path, last->first))
            last = answered.try_emplace(path.parentPath()).first;
        ++last->second;
    }
    if (left == 0)
        return; // everything that lay in the folder is in the answer
    std::vector<Path> gone;
    const auto look = [&](const Path& path) {
        ++m_touched;
        if (before.find(path) != nullptr && !answer.contains(path))
            gone.push_back(path);
    };
    if (below < before.m_contents.folders.size()) {
        before.forEachIn(folder, [&](const Path& path, const State&) { look(path); });
    } else {
        // Only in folders of which not all was answered.
        look(folder);
        before.m_contents.folders.forEach([&](const Path& path, const auto& known) {
            const auto found = answered.find(path);
            const auto count = found != answered.end() ? found->second : 0;
            if (isInside(path) && count != known->summary.direct.total())
                known->children.forEach([&](const Path& child, auto) { look(child); });
        });
    }
    for (const auto& path : gone)
        erase(path);
}

/// To be called before the change is made: it fails before anything has changed.
template <class State>
void TransactionalFileCache<State>::Transaction::note(const Path& path, const State* before,
                                                      const State* after) {
    // Most changes come in the order of their paths: is it in the folder of the one before?
    if (m_lastFolder == nullptr || !isDirectlyIn(path, *m_lastFolder)) {
        const auto parent = path.parentPath();
        const auto* entry = m_contents.states.find(parent);
        const auto place = m_folders.try_emplace(entry != nullptr ? entry->path : parent).first;
        m_lastFolder = &place->first;
        m_lastDelta = &place->second;
    }
    if ((before == nullptr) != (after == nullptr))
        m_lastDelta->children.push_back(path);
    if (m_recordsChanges) {
        m_changes.changes.push_back({path, std::nullopt, std::nullopt});
        if (before != nullptr)
            m_changes.changes.back().before = *before;
        if (after != nullptr)
            m_changes.changes.back().after = *after;
    }
    if (before != nullptr)
        --m_lastDelta->direct[before->getState()];
    if (after != nullptr)
        ++m_lastDelta->direct[after->getState()];
    m_changed = true;
}

template <class State>
void TransactionalFileCache<State>::Transaction::settleFolders() {
    std::vector<Path> changed;
    changed.reserve(m_folders.size());
    for (const auto& [path, delta] : m_folders)
        changed.push_back(path);
    for (const auto& path : changed) {
        const StatusCounts direct = m_folders.find(path)->second.direct;
        for (Path folder = path;; folder = folder.parentPath()) {
            m_folders[folder].below += direct;
            if (folder.empty())
                break;
        }
    }
    // The longer text is never that of the parent.
    std::vector<std::pair<const Path, FolderDelta>*> deepestFirst;
    deepestFirst.reserve(m_folders.size() + 1);
    for (auto& each : m_folders)
        deepestFirst.push_back(&each);
    std::ranges::sort(deepestFirst, std::greater(),
                      [](const auto* each) { return each->first.string().size(); });
    for (auto* each : deepestFirst)
        settleFolder(each->first, each->second);
}

template <class State>
void TransactionalFileCache<State>::Transaction::settleFolder(const Path& path,
                                                              FolderDelta& delta) {
    ++m_touched;
    const auto* known = m_contents.folders.find(path);
    const bool wasKnown = known != nullptr;
    auto folder = wasKnown ? std::make_shared<Folder>(*known->value) : std::make_shared<Folder>();
    const bool hadEntries = folder->summary.direct != StatusCounts();
    folder->summary.direct += delta.direct;
    folder->summary.below += delta.below;
    for (const auto& child : delta.children) {
        ++m_touched;
        if (m_contents.states.find(child) != nullptr || m_contents.folders.find(child) != nullptr)
            folder->children.put(child, {});
        else
            folder->children.erase(child);
    }
    const bool hasEntries = folder->summary.direct != StatusCounts();
    if (hasEntries != hadEntries)
        (hasEntries ? m_folderSetChange.appeared : m_folderSetChange.vanished).push_back(path);

    const bool isKnown = !folder->children.empty();
    if (isKnown != wasKnown && !path.empty())
        m_folders[path.parentPath()].children.push_back(path);
    if (isKnown)
        m_contents.folders.put(path, std::move(folder));
    else
        m_contents.folders.erase(path);
}

template <class State>
bool TransactionalFileCache<State>::Transaction::commit() {
    if (!m_changed)
        return false;
    settleFolders();
    ++m_contents.number;
    if (!m_folderSetChange.appeared.empty() || !m_folderSetChange.vanished.empty())
        ++m_contents.folderSetNumber;
    m_changes.version = m_contents.number;
    m_folderSetChange.version = m_contents.folderSetNumber;
    const auto hold = m_cache.m_lock.write();
    std::swap(m_cache.m_contents, m_contents);
    return true;
}

template <class State>
void TransactionalFileCache<State>::Transaction::recordNow() {
    if (m_recordsChanges || !m_changed)
        return;
    const auto after = m_cache.version(); // ours: the next transaction waits for its turn
    // commit() has exchanged the contents.
    m_contents.states.forEach([&](const Path& path, const State& before) {
        const State* now = after.find(path);
        if (now == nullptr)
            m_changes.changes.push_back({path, before, std::nullopt});
        else if (!(*now == before))
            m_changes.changes.push_back({path, before, *now});
    });
    after.forEach([&](const Path& path, const State& now) {
        if (m_contents.states.find(path) == nullptr)
            m_changes.changes.push_back({path, std::nullopt, now});
    });
}

template class TransactionalFileCache<FileState>;

} // namespace quendo
