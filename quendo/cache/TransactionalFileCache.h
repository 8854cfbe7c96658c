#pragma once

#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/PathTrie.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/ReentrantReadWriteLock.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quendo {

/// The store of a status cache: the state of every path, and for every folder what it holds,
/// together with the lock that guards them. TransactionalFileCache.cpp tells how it works.
///
/// Readers see the result of whole transactions only. They take the read side of the lock for one
/// look-up, or for taking a version; who goes through a version holds no lock.
///
/// Threads: any may read. Transactions come one after the other, each on one thread.
template <class State>
class TransactionalFileCache {
    struct Folder;
    struct Contents;

public:
    class Version;
    class Transaction;

    TransactionalFileCache();
    ~TransactionalFileCache();
    TransactionalFileCache(const TransactionalFileCache&) = delete;
    TransactionalFileCache& operator=(const TransactionalFileCache&) = delete;

    /// The state of `path`, copied under the read side of the lock.
    std::optional<State> find(const Path& path) const;

    /// The contents as they are now. They stay as they are, and keep their memory, as long as the
    /// version is held.
    Version version() const;

    /// Guards the contents; the write side is held only to exchange them for those that a
    /// transaction has made.
    const ReentrantReadWriteLock& lock() const noexcept { return m_lock; }

private:
    struct Contents {
        PathTrie<State> states;
        PathTrie<std::shared_ptr<const Folder>> folders;
        std::uint64_t number = 0;
        std::uint64_t folderSetNumber = 0;
    };

    mutable ReentrantReadWriteLock m_lock;
    Contents m_contents;  ///< guarded by m_lock
    std::mutex m_writers; ///< held by a transaction; before m_lock
};

/// The contents at one moment. A value; copies cost nothing. Threads: as any value.
template <class State>
class TransactionalFileCache<State>::Version {
public:
    /// Grows with every transaction that changed something.
    std::uint64_t number() const noexcept { return m_contents.number; }

    const State* find(const Path& path) const noexcept;

    /// Number of paths.
    std::size_t size() const noexcept { return m_contents.states.size(); }

    /// Calls `visit(const Path&, const State&)` for every path, in no order.
    template <class Visit>
    void forEach(Visit&& visit) const {
        m_contents.states.forEach(visit);
    }

    /// The same for `folder` and what lies below it.
    void forEachIn(const Path& folder,
                   const std::function<void(const Path&, const State&)>& visit) const;

    FolderSummary summaryOf(const Path& folder) const noexcept;

    /// The folders that directly hold entries, in no order.
    std::vector<Path> folders() const;
    std::uint64_t folderSetNumber() const noexcept { return m_contents.folderSetNumber; }

private:
    friend class TransactionalFileCache;
    explicit Version(const Contents& contents) : m_contents(contents) {}

    Contents m_contents;
};

/// One change of the contents: prepared beside the readers, then visible all at once. Destroyed
/// without commit() it changes nothing.
///
/// Every operation may fail for lack of memory; the contents are then as before, and the
/// transaction is only good for being destroyed.
template <class State>
class TransactionalFileCache<State>::Transaction {
public:
    /// Waits for another transaction to end.
    /// @param recordsChanges whether takeChanges() is to have something to give
    explicit Transaction(TransactionalFileCache& cache, bool recordsChanges = false);

    /// @return whether the path was there already
    bool put(const Path& path, const State& state);
    void erase(const Path& path);

    /// Puts all of `answer`.
    void merge(const std::map<Path, State>& answer);

    /// Puts all of `answer` and erases what else lies in `folder`, its own entry included. To be
    /// the first change of its transaction.
    void replace(const Path& folder, const std::map<Path, State>& answer);

    /// Makes everything visible. Only here the write side of the lock is taken, and no entry is
    /// touched under it. Nothing else may be called afterwards but what is below.
    /// @return whether anything has changed
    bool commit();

    StatusChanges takeChanges() noexcept { return std::move(m_changes); }

    /// After commit(): records the changes if that was not done, by comparing all that is cached
    /// with what was cached before.
    void recordNow();
    FolderSetChange takeFolderSetChange() noexcept { return std::move(m_folderSetChange); }

    /// Entries looked at or written so far, the bookkeeping of folders included.
    std::size_t touched() const noexcept { return m_touched; }

private:
    /// What becomes of one folder, as far as it is known before commit().
    struct FolderDelta {
        StatusCounts direct; // differences
        StatusCounts below;
        std::vector<Path> children; // to be looked at: they came, or may have gone
    };

    void note(const Path& path, const State* before, const State* after);
    void settleFolders();
    void settleFolder(const Path& path, FolderDelta& delta);

    TransactionalFileCache& m_cache;
    const bool m_recordsChanges;
    const std::unique_lock<std::mutex> m_turn;
    Contents m_contents;
    std::unordered_map<Path, FolderDelta> m_folders;
    const Path* m_lastFolder = nullptr; ///< a key of m_folders: that of the last change
    FolderDelta* m_lastDelta = nullptr;
    bool m_changed = false;
    StatusChanges m_changes;
    FolderSetChange m_folderSetChange;
    std::size_t m_touched = 0;
};

} // namespace quendo
