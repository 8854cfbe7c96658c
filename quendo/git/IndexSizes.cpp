#include "quendo/git/IndexSizes.h"

#include "quendo/git/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

// The format is git's (gitformat-index). It is read in pieces and not mapped: somebody may cut the
// file off meanwhile, and a mapping would end this process then.

namespace quendo::git {
namespace {

class PiecewiseFile {
public:
    explicit PiecewiseFile(int file) : m_file(file), m_buffer(1U << 20U) {}

    /// `size` bytes, which are valid until the next call; nothing at the end of the file.
    const unsigned char* take(std::size_t size) {
        if (m_end - m_begin < size && !refill(size))
            return nullptr;
        const auto* taken = m_buffer.data() + m_begin;
        m_begin += size;
        return taken;
    }

    /// Passes over what comes, up to and with a NUL.
    /// @return how many bytes that were; 0 at the end of the file
    std::size_t passNul() {
        for (std::size_t passed = 0;;) {
            const auto* start = m_buffer.data() + m_begin;
            if (const auto* found = std::memchr(start, 0, m_end - m_begin)) {
                const auto size =
                    static_cast<std::size_t>(static_cast<const unsigned char*>(found) - start) + 1;
                m_begin += size;
                return passed + size;
            }
            passed += m_end - m_begin;
            m_begin = m_end;
            if (!refill(1))
                return 0;
        }
    }

private:
    bool refill(std::size_t needed) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= std::exchange(m_begin, 0);
        while (m_end < needed) {
            const auto count = ::read(m_file, m_buffer.data() + m_end, m_buffer.size() - m_end);
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                return false;
            m_end += static_cast<std::size_t>(count);
        }
        return true;
    }

    const int m_file;
    std::vector<unsigned char> m_buffer;
    std::size_t m_begin = 0, m_end = 0;
};

std::uint32_t number(const unsigned char* bytes) {
    return std::uint32_t{bytes[0]} << 24U | std::uint32_t{bytes[1]} << 16U |
           std::uint32_t{bytes[2]} << 8U | bytes[3];
}

/// @return nothing when the entries do not look like those of an index with such object names
std::optional<std::uint64_t> sumSizes(int descriptor, std::size_t nameOfObject) {
    PiecewiseFile file(descriptor);
    const auto* header = file.take(12);
    if (header == nullptr || std::memcmp(header, "DIRC", 4) != 0)
        return std::nullopt;
    const auto version = number(header + 4);
    std::uint64_t sum = 0;
    for (auto left = number(header + 8); left > 0; --left) {
        constexpr std::size_t modeAt = 24, sizeAt = 36, stat = 40;
        const auto* entry = file.take(stat + nameOfObject + 2);
        if (entry == nullptr)
            return std::nullopt;
        const auto mode = number(entry + modeAt);
        if (mode > 0177777 ||
            (!S_ISREG(mode) && !S_ISLNK(mode) && !S_ISDIR(mode) && (mode & S_IFMT) != 0160000))
            return std::nullopt;
        sum += number(entry + sizeAt);
        const auto flags = static_cast<unsigned>(entry[stat + nameOfObject]) << 8U |
                           entry[stat + nameOfObject + 1];
        constexpr unsigned isExtended = 0x4000, lengthBits = 0xfff;
        std::size_t length = stat + nameOfObject + 2;
        if ((flags & isExtended) != 0) {
            length += 2;
            if (file.take(2) == nullptr)
                return std::nullopt;
        }
        std::size_t name = flags & lengthBits, taken = 0;
        if (version >= 4) {
            // A number comes first: bytes with the highest bit set, and one without.
            const unsigned char* byte = nullptr;
            while ((byte = file.take(1)) != nullptr && *byte >= 0x80) {
            }
            if (byte == nullptr || file.passNul() == 0)
                return std::nullopt;
            continue;
        }
        if (name == lengthBits) { // that long or longer
            taken = file.passNul();
            if (taken == 0)
                return std::nullopt;
            name = taken - 1;
        }
        if (file.take((length + name + 8) / 8 * 8 - length - taken) == nullptr)
            return std::nullopt;
    }
    return sum;
}

} // namespace

std::uint64_t sizeOfTrackedFiles(const std::string& index) {
    const FileDescriptor file(::open(index.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return 0;
    for (const std::size_t nameOfObject : {20, 32}) {
        ::lseek(file.get(), 0, SEEK_SET);
        if (const auto sum = sumSizes(file.get(), nameOfObject))
            return *sum;
    }
    return 0;
}

} // namespace quendo::git
