#include "quendo/platform/StackTraceRecordingException.h"

#include <boost/stacktrace/frame.hpp>
#include <boost/stacktrace/safe_dump_to.hpp>

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <sstream>
#include <utility>
#include <vector>

namespace quendo::platform {
namespace {

/// Boost's text (name and file), and the offset in the file. Only exported functions have names,
/// and the address alone is of no use in another process, where the file is loaded elsewhere.
std::string describe(boost::stacktrace::frame::native_frame_ptr_t address) {
    std::ostringstream text;
    text << boost::stacktrace::frame(address);
    Dl_info file{};
    if (dladdr(address, &file) != 0)
        text << "+0x" << std::hex
             << reinterpret_cast<std::uintptr_t>(address) -
                    reinterpret_cast<std::uintptr_t>(file.dli_fbase);
    return text.str();
}

} // namespace

struct StackTraceRecordingException::Frames {
    std::vector<boost::stacktrace::frame::native_frame_ptr_t> addresses;
};

StackTraceRecordingException::StackTraceRecordingException(const std::string& message)
    : std::runtime_error(message) {
    // One more for the null that ends the dump.
    std::array<boost::stacktrace::frame::native_frame_ptr_t, maximumFrames + 1> buffer{};
    boost::stacktrace::safe_dump_to(buffer.data(), sizeof buffer);
    try {
        auto frames = std::make_shared<Frames>();
        frames->addresses.assign(buffer.begin(), std::ranges::find(buffer, nullptr));
        m_frames = std::move(frames);
    } catch (const std::bad_alloc&) {
        // The message alone is better than another error in its place.
    }
}

StackTraceRecordingException::StackTraceRecordingException(
    const StackTraceRecordingException&) noexcept = default;
StackTraceRecordingException&
StackTraceRecordingException::operator=(const StackTraceRecordingException&) noexcept = default;
StackTraceRecordingException::~StackTraceRecordingException() = default;

std::string StackTraceRecordingException::stackTrace() const {
    std::string text;
    if (m_frames != nullptr) {
        for (const auto address : m_frames->addresses)
            text += describe(address) + '\n';
    }
    return text;
}

std::size_t StackTraceRecordingException::frameCount() const noexcept {
    return m_frames != nullptr ? m_frames->addresses.size() : 0;
}

} // namespace quendo::platform
