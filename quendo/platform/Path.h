#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Rethrowable.h"
#include "quendo/platform/UString.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace quendo {

/// Thrown when text cannot name a file: it holds a NUL, or surrogates that would come back from
/// the file system as different text. The message shows the text and says what is wrong with it.
class QUENDO_API InvalidPathError : public exception::Rethrowable<InvalidPathError> {
public:
    using Rethrowable::Rethrowable;
};

/// A file-system path, held as immutable UTF-16 text.
///
/// Any name that a POSIX file system can hold survives: a byte that is not part of valid UTF-8 is
/// held as one lone surrogate U+DC80..U+DCFF and turns back into that byte in toNative().
///
/// Ordered, hashed and compared by the text alone: "a//b" and "a/b" are two paths, and nothing
/// here looks at the disk. Order is that of UTF-16 code units, which differs from byte order for
/// characters beyond U+FFFF.
///
/// Cost: a Path is a pointer and the hash; copying, moving and destroying it allocate nothing, and
/// the hash is computed once. Threads: values, free to be copied and read from any thread.
class QUENDO_API Path {
public:
    /// The empty path.
    Path() noexcept = default;

    /// @throws InvalidPathError when `text` would not come back the same from the file system.
    explicit Path(std::u16string_view text);

    /// A path from the bytes that the operating system uses.
    /// @throws InvalidPathError when `bytes` hold a NUL.
    static Path fromNative(std::string_view bytes);

    Path(const Path& other) noexcept;
    Path(Path&& other) noexcept
        : m_rep(std::exchange(other.m_rep, nullptr)), m_hash(std::exchange(other.m_hash, 0)) {}
    Path& operator=(const Path& other) noexcept;
    Path& operator=(Path&& other) noexcept;
    ~Path();

    /// The text; valid as long as this path or a copy of it lives.
    std::u16string_view string() const noexcept;

    /// Valid UTF-8 for people and logs; bytes that were no UTF-8 are shown as U+FFFD.
    std::string toUtf8() const;

    /// The bytes that the operating system uses, exactly as they came.
    std::string toNative() const;

    /// An equal path that shares no memory with this one.
    Path detached() const;

    bool empty() const noexcept { return m_rep == nullptr; }
    bool isAbsolute() const noexcept;

    /// The text up to the last separator; "/" for "/a", empty for a path without a parent: "/",
    /// "a" and the empty path.
    Path parentPath() const;

    /// The text behind the last separator; empty for "/" and for paths that end with one.
    Path fileName() const;

    /// `relative` below this path, with one separator between. An empty `relative` gives this path
    /// and an absolute one gives itself.
    Path operator/(const Path& relative) const;
    Path operator/(std::u16string_view relative) const;

    /// As operator/, from native bytes; the fast way to make many paths under one folder.
    /// @throws InvalidPathError when `relativeBytes` hold a NUL.
    Path child(std::string_view relativeBytes) const;

    /// Without ".", ".." and doubled or trailing separators, as far as the text alone can tell.
    Path lexicallyNormal() const;

    /// This path as seen from `base`: "." when equal, with leading ".." where it is not below.
    /// Empty when one is absolute and the other is not, and when `base` climbs out with a ".."
    /// that this path does not share. Both are taken as lexicallyNormal().
    Path lexicallyRelative(const Path& base) const;

    /// True when this path is below `ancestor`; a path is not below itself, and nothing is below
    /// the empty path. Text only.
    bool isBelow(const Path& ancestor) const noexcept;

    /// Of the text.
    std::size_t hash() const noexcept { return m_hash; }

    friend bool operator==(const Path& a, const Path& b) noexcept {
        return a.m_rep == b.m_rep || (a.m_hash == b.m_hash && a.string() == b.string());
    }
    friend QUENDO_API std::strong_ordering operator<=>(const Path& a, const Path& b) noexcept;

private:
    struct Rep;
    explicit Path(Rep* rep) noexcept;
    static Path fromValidText(std::u16string_view first, std::u16string_view second = {},
                              std::u16string_view third = {});

    Rep* m_rep = nullptr;
    std::size_t m_hash = 0; // beside the pointer: a look-up need not read the text's memory for it
};

QUENDO_API std::ostream& operator<<(std::ostream& stream, const Path& path);

} // namespace quendo

template <>
struct std::hash<quendo::Path> {
    std::size_t operator()(const quendo::Path& path) const noexcept { return path.hash(); }
};
