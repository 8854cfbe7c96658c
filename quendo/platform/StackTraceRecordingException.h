#pragma once

#include "quendo/platform/Export.h"

#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

namespace quendo::platform {

/// An exception that remembers the call stack at the place where it was made.
///
/// Only addresses are captured (at most 128 frames, a few microseconds); names are looked up when
/// stackTrace() is asked for, because the first look-up of a process costs about 120 ms.
///
/// Copies share the message and the stack and never throw.
class QUENDO_API StackTraceRecordingException : public std::runtime_error {
public:
    static constexpr std::size_t maximumFrames = 128;

    /// @param message UTF-8, one line, says what to do; returned by what().
    explicit StackTraceRecordingException(const std::string& message);
    StackTraceRecordingException(const StackTraceRecordingException&) noexcept;
    StackTraceRecordingException& operator=(const StackTraceRecordingException&) noexcept;
    ~StackTraceRecordingException() override;

    /// The recorded frames as text, innermost first, one a line: the function's name if it is
    /// exported and else the address, then the file and the offset in it: "NAME in FILE+0xOFFSET".
    /// Where the debug information of FILE is installed, `addr2line -Cfie FILE 0xOFFSET` prints
    /// function and source line. Slow the first time.
    std::string stackTrace() const;

    /// Number of recorded frames; 0 when memory for them was short.
    std::size_t frameCount() const noexcept;

private:
    struct Frames;
    std::shared_ptr<const Frames> m_frames;
};

} // namespace quendo::platform
