#pragma once

#include "quendo/platform/Path.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace quendo {

/// A map from Path to Value whose copies are free: a copy shares everything, and a change to one of
/// them copies only what lies on the way to the entry (some hundred bytes). So a version that a
/// reader holds stays as it is, whatever becomes of the others.
///
/// A trie over the hash of the path, four bits a level. The leaves hold up to `leafLimit` entries
/// in no order, each with one more byte of its hash, so that a question compares no text but that
/// of its answer, and none at all when it is asked with the very Path that was put in. There is no
/// table to grow: the most that one change copies does not depend on the size of the map, but for
/// paths with the same 64-bit hash, which share a leaf whatever their number.
///
/// What belongs to one map alone is changed in place, so filling a map copies little.
///
/// Threads: as any value. Different maps that share parts may be used from different threads.
/// Exceptions: put() and erase() fail for lack of memory only, and the map is then unchanged in
/// content.
template <class Value>
class PathTrie {
    static_assert(std::is_nothrow_copy_constructible_v<Value> &&
                  std::is_nothrow_move_constructible_v<Value>);

public:
    struct Entry {
        Path path;
        [[no_unique_address]] Value value;
    };

    std::size_t size() const noexcept { return m_root.size(); }
    bool empty() const noexcept { return size() == 0; }

    /// Valid until this map changes or goes.
    const Entry* find(const Path& path) const noexcept;

    /// Sets the value of `path`. An entry that is there keeps its own copy of the path.
    void put(const Path& path, Value value);

    /// @return whether it was there
    bool erase(const Path& path);

    /// Calls `visit(const Path&, const Value&)` for every entry, in no order.
    template <class Visit>
    void forEach(Visit&& visit) const {
        visitAll(m_root, visit);
    }

private:
    static constexpr unsigned bits = 4;
    static constexpr unsigned fanOut = 1U << bits;
    static constexpr unsigned lastLevel = std::numeric_limits<std::size_t>::digits / bits;
    static constexpr std::uint32_t leafLimit = 32;
    static constexpr std::uint32_t leafStep = 2; // by which the room of a leaf grows

    struct Leaf;
    struct Branch;

    /// Owns a share of a node, or of none. The lowest bit of the address tells the kind, so that a
    /// question need not read the node for that.
    class Link {
    public:
        Link() noexcept = default;
        explicit Link(Leaf* leaf) noexcept : m_bits(reinterpret_cast<std::uintptr_t>(leaf) | 1U) {}
        explicit Link(Branch* branch) noexcept : m_bits(reinterpret_cast<std::uintptr_t>(branch)) {}
        Link(const Link& other) noexcept : m_bits(other.m_bits) {
            if (m_bits != 0)
                references().fetch_add(1, std::memory_order_relaxed);
        }
        Link(Link&& other) noexcept : m_bits(std::exchange(other.m_bits, 0)) {}
        Link& operator=(Link other) noexcept {
            std::swap(m_bits, other.m_bits);
            return *this;
        }
        ~Link() {
            if (m_bits == 0 || references().fetch_sub(1, std::memory_order_acq_rel) != 1)
                return;
            if (isLeaf())
                Leaf::destroy(leaf());
            else
                delete branch();
        }

        explicit operator bool() const noexcept { return m_bits != 0; }
        bool isLeaf() const noexcept { return (m_bits & 1U) != 0; }
        Leaf* leaf() const noexcept { return reinterpret_cast<Leaf*>(m_bits & ~std::uintptr_t{1}); }
        Branch* branch() const noexcept { return reinterpret_cast<Branch*>(m_bits); }

        /// Whether nobody else has a share; to be asked only of what an unshared node holds.
        bool isUnshared() const noexcept {
            return references().load(std::memory_order_acquire) == 1;
        }
        std::uint32_t size() const noexcept {
            return m_bits == 0 ? 0 : isLeaf() ? leaf()->count : branch()->count;
        }

    private:
        std::atomic<std::uint32_t>& references() const noexcept {
            return isLeaf() ? leaf()->references : branch()->references;
        }

        std::uintptr_t m_bits = 0;
    };

    struct Branch {
        std::atomic<std::uint32_t> references{1};
        std::uint32_t count = 0; // entries below
        std::array<Link, fanOut> children;

        Branch() = default;
        Branch(const Branch& other) : count(other.count), children(other.children) {}
    };

    // Behind this head stand `capacity` tags and then `capacity` entries, of both the first `count`
    // in use, in the same allocation.
    struct Leaf {
        std::atomic<std::uint32_t> references{1};
        std::uint32_t count = 0;
        std::uint32_t capacity;

        explicit Leaf(std::uint32_t room) noexcept : capacity(room) {}

        static std::size_t entriesOffset(std::uint32_t room) noexcept {
            return (sizeof(Leaf) + room + alignof(Entry) - 1) / alignof(Entry) * alignof(Entry);
        }
        static Leaf* create(std::uint32_t room) {
            void* memory = ::operator new(entriesOffset(room) + room * sizeof(Entry));
            return new (memory) Leaf(room);
        }
        static void destroy(Leaf* leaf) noexcept {
            std::destroy_n(leaf->entries(), leaf->count);
            leaf->~Leaf();
            ::operator delete(leaf);
        }

        std::uint8_t* tags() noexcept { return reinterpret_cast<std::uint8_t*>(this + 1); }
        Entry* entries() noexcept {
            return reinterpret_cast<Entry*>(reinterpret_cast<char*>(this) +
                                            entriesOffset(capacity));
        }

        Entry* find(const Path& path, std::uint8_t tag) noexcept {
            const std::uint8_t* const begin = tags();
            const std::uint8_t* const end = begin + count;
            for (const std::uint8_t* at = begin;; ++at) {
                at = static_cast<const std::uint8_t*>(
                    std::memchr(at, tag, static_cast<std::size_t>(end - at)));
                if (at == nullptr)
                    return nullptr;
                Entry* entry = entries() + (at - begin);
                if (entry->path == path)
                    return entry;
            }
        }

        /// There must be room.
        void append(Entry entry, std::uint8_t tag) noexcept {
            tags()[count] = tag;
            new (entries() + count) Entry(std::move(entry));
            ++count;
        }
    };

    // The levels consume the hash from its low end; the tag is its highest byte.
    static std::uint8_t tagOf(std::size_t hash) noexcept {
        return static_cast<std::uint8_t>(hash >> (std::numeric_limits<std::size_t>::digits - 8));
    }
    static unsigned slotOf(std::size_t hash, unsigned level) noexcept {
        return static_cast<unsigned>(hash >> (level * bits)) % fanOut;
    }

    /// A copy of `leaf` with at least `room`; takes the entries out of it when it is unshared.
    static Leaf* remade(Leaf& leaf, std::uint32_t room, bool unshared) {
        Leaf* result = Leaf::create((room + leafStep - 1) / leafStep * leafStep);
        for (std::uint32_t i = 0; i < leaf.count; ++i) {
            Entry& entry = leaf.entries()[i];
            result->append(unshared ? std::move(entry) : entry, leaf.tags()[i]);
        }
        return result;
    }

    static void put(Link& link, unsigned level, std::size_t hash, Entry&& entry);
    static void putInLeaf(Link& link, unsigned level, std::size_t hash, Entry&& entry);
    static bool eraseFound(Link& link, unsigned level, std::size_t hash, const Path& path);
    static void own(Link& link) {
        if (!link.isUnshared())
            link = Link(new Branch(*link.branch()));
    }
    static void gather(Link& link);

    template <class Visit>
    static void visitAll(const Link& link, Visit& visit) {
        if (!link)
            return;
        if (!link.isLeaf()) {
            for (const auto& child : link.branch()->children)
                visitAll(child, visit);
            return;
        }
        Leaf& leaf = *link.leaf();
        for (std::uint32_t i = 0; i < leaf.count; ++i)
            visit(std::as_const(leaf.entries()[i].path), std::as_const(leaf.entries()[i].value));
    }

    Link m_root;
};

template <class Value>
const typename PathTrie<Value>::Entry* PathTrie<Value>::find(const Path& path) const noexcept {
    const auto hash = path.hash();
    const Link* link = &m_root;
    for (unsigned level = 0; *link && !link->isLeaf(); ++level)
        link = &link->branch()->children[slotOf(hash, level)];
    return *link ? link->leaf()->find(path, tagOf(hash)) : nullptr;
}

template <class Value>
void PathTrie<Value>::put(const Path& path, Value value) {
    put(m_root, 0, path.hash(), Entry{path, std::move(value)});
}

template <class Value>
void PathTrie<Value>::put(Link& link, unsigned level, std::size_t hash, Entry&& entry) {
    if (!link || link.isLeaf()) {
        putInLeaf(link, level, hash, std::move(entry));
        return;
    }
    own(link);
    Branch& branch = *link.branch();
    Link& child = branch.children[slotOf(hash, level)];
    const auto before = child.size();
    put(child, level + 1, hash, std::move(entry));
    branch.count += child.size() - before;
}

template <class Value>
void PathTrie<Value>::putInLeaf(Link& link, unsigned level, std::size_t hash, Entry&& entry) {
    const auto tag = tagOf(hash);
    if (!link) {
        Leaf* leaf = Leaf::create(leafStep);
        leaf->append(std::move(entry), tag);
        link = Link(leaf);
        return;
    }
    Leaf& leaf = *link.leaf();
    const bool unshared = link.isUnshared();
    if (Entry* found = leaf.find(entry.path, tag)) {
        if (unshared) {
            found->value = std::move(entry.value);
        } else {
            Leaf* copy = remade(leaf, leaf.count, false);
            copy->entries()[found - leaf.entries()].value = std::move(entry.value);
            link = Link(copy);
        }
    } else if (leaf.count < leafLimit || level == lastLevel) {
        if (unshared && leaf.count < leaf.capacity) {
            leaf.append(std::move(entry), tag);
        } else {
            // Many with one hash: the room doubles, so that each is moved a few times only.
            const auto room = level == lastLevel ? 2 * leaf.count : leaf.count;
            Leaf* copy = remade(leaf, room + 1, unshared);
            copy->append(std::move(entry), tag);
            link = Link(copy);
        }
    } else {
        // Copied, not moved: when memory ends half-way the leaf is still whole.
        Link branch(new Branch);
        for (std::uint32_t i = 0; i < leaf.count; ++i) {
            const Entry& each = leaf.entries()[i];
            put(branch, level, each.path.hash(), Entry(each));
        }
        put(branch, level, hash, std::move(entry));
        link = std::move(branch);
    }
}

template <class Value>
bool PathTrie<Value>::erase(const Path& path) {
    return find(path) != nullptr && eraseFound(m_root, 0, path.hash(), path);
}

template <class Value>
bool PathTrie<Value>::eraseFound(Link& link, unsigned level, std::size_t hash, const Path& path) {
    if (link.isLeaf()) {
        Leaf* leaf = link.leaf();
        if (leaf->count == 1) {
            link = Link();
            return true;
        }
        // A leaf with much room to spare is made anew.
        if (!link.isUnshared() || leaf->capacity >= leaf->count + 2 * leafStep) {
            leaf = remade(*leaf, leaf->count, link.isUnshared());
            link = Link(leaf);
        }
        Entry* found = leaf->find(path, tagOf(hash));
        Entry* last = leaf->entries() + leaf->count - 1;
        if (found != last) {
            leaf->tags()[found - leaf->entries()] = leaf->tags()[leaf->count - 1];
            *found = std::move(*last);
        }
        std::destroy_at(last);
        --leaf->count;
        return true;
    }
    own(link);
    Branch& branch = *link.branch();
    eraseFound(branch.children[slotOf(hash, level)], level + 1, hash, path);
    --branch.count;
    if (branch.count <= leafLimit / 2)
        gather(link);
    return true;
}

/// Makes one leaf of a branch that has become small.
template <class Value>
void PathTrie<Value>::gather(Link& link) {
    Branch& branch = *link.branch();
    if (!std::ranges::all_of(branch.children,
                             [](const Link& child) { return !child || child.isLeaf(); }))
        return;
    Leaf* leaf = nullptr;
    try {
        leaf = Leaf::create((branch.count + leafStep - 1) / leafStep * leafStep);
    } catch (const std::bad_alloc&) {
        return; // it may stay as it is
    }
    for (const auto& child : branch.children) {
        for (std::uint32_t i = 0; i < child.size(); ++i)
            leaf->append(child.leaf()->entries()[i], child.leaf()->tags()[i]);
    }
    link = Link(leaf);
}

} // namespace quendo
