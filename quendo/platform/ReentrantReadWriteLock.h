#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Rethrowable.h"

#include <memory>

namespace quendo {

/// Thrown by ReentrantReadWriteLock::write() to a thread that holds only the read side: waiting
/// would wait for itself. Release the read side, take the write side, and test again.
class QUENDO_API LockUpgradeError : public exception::Rethrowable<LockUpgradeError> {
public:
    using Rethrowable::Rethrowable;
};

/// A reader-writer lock that the thread holding it may take again.
///
/// A thread may take the read side while it holds either side, also while a writer waits, and the
/// write side while it holds the write side. Waiting writers go before new readers, so a stream of
/// readers cannot starve them.
///
/// read() and write() return scope objects; each must be destroyed on the thread that made it,
/// in any order. The lock must outlive them.
class QUENDO_API ReentrantReadWriteLock {
public:
    class Scope;

    ReentrantReadWriteLock();
    ~ReentrantReadWriteLock();
    ReentrantReadWriteLock(const ReentrantReadWriteLock&) = delete;
    ReentrantReadWriteLock& operator=(const ReentrantReadWriteLock&) = delete;

    /// Blocks until no other thread holds the write side.
    [[nodiscard]] Scope read() const;

    /// Blocks until no other thread holds either side.
    /// @throws LockUpgradeError when this thread holds the read side and not the write side.
    [[nodiscard]] Scope write() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// One hold of a lock; released on destruction. Movable, on the thread that took it.
class QUENDO_API ReentrantReadWriteLock::Scope {
public:
    Scope(Scope&& other) noexcept : m_impl(other.m_impl), m_write(other.m_write) {
        other.m_impl = nullptr;
    }
    Scope& operator=(Scope&& other) noexcept;
    ~Scope() { release(); }

    /// Releases early; later calls and the destructor do nothing.
    void release() noexcept;

private:
    friend class ReentrantReadWriteLock;
    Scope(Impl* impl, bool write) noexcept : m_impl(impl), m_write(write) {}

    Impl* m_impl;
    bool m_write;
};

} // namespace quendo
