#pragma once

#include "quendo/platform/Export.h"

#include <iosfwd>
#include <memory>
#include <string_view>

/// Log records of the library, written through Boost.Log with the attributes Channel ("quendo"),
/// Severity (int), Source ("pool/PooledManagedFolder"), Function (its full signature) and Line.
///
/// A process that has set up no sink sees nothing on its terminal: the first record adds one sink
/// that takes nothing, which keeps Boost.Log's default console sink off. A record that no sink
/// takes is dropped before its text is made.
///
/// Filters see Channel, Severity and the attributes that the host added to Boost.Log's core;
/// Source, Function and Line join once some sink has taken the record, for formatters, because
/// making them would cost more than the record that nobody takes. What filters and sinks throw is
/// swallowed.
namespace quendo::platform {

/// The severities in use. The numbers are what sinks filter by.
enum class Severity : int {
    Detail = 2,
    Notice = 8,
    CaughtException = 16,
};

/// Records below this severity are not even offered to Boost.Log; every record is at the start.
/// Any thread.
QUENDO_API void setLogThreshold(Severity lowest) noexcept;

/// One record, open while somebody takes it. Use QUENDO_LOG.
class QUENDO_API LogRecord {
public:
    LogRecord(Severity severity, std::string_view source, const char* function, int line) noexcept;
    ~LogRecord();
    LogRecord(const LogRecord&) = delete;
    LogRecord& operator=(const LogRecord&) = delete;

    explicit operator bool() const noexcept { return m_impl != nullptr; }
    std::ostream& stream() noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// The call of an operation: a record of severity Detail with the message "enter" when it is made,
/// and one with "leave" when it is destroyed, unless nobody took the first. Both have the Function
/// and the Line of the place where it is made. Use QUENDO_TRACE_SCOPE.
class QUENDO_API TraceScope {
public:
    TraceScope(std::string_view source, const char* function, int line) noexcept;
    ~TraceScope() {
        if (m_isTaken)
            leave();
    }
    TraceScope(const TraceScope&) = delete;
    TraceScope& operator=(const TraceScope&) = delete;

private:
    void leave() const noexcept;

    const std::string_view m_source;
    const char* const m_function;
    const int m_line;
    bool m_isTaken = false;
};

/// Logs "Exception caught: " and the diagnostic text of the exception being handled. Never throws;
/// call it inside a catch block.
QUENDO_API void logCaughtException(std::string_view source, const char* function,
                                   int line) noexcept;

/// "pool/PooledManagedFolder" of ".../quendo/pool/PooledManagedFolder.cpp".
constexpr std::string_view logSourceOf(std::string_view file) noexcept {
    if (const auto root = file.rfind("quendo/"); root != std::string_view::npos)
        file.remove_prefix(root + 7);
    return file.substr(0, file.rfind('.'));
}

} // namespace quendo::platform

/// QUENDO_LOG(Severity::Notice) << "text" << value; the operands are evaluated only when taken.
#define QUENDO_LOG(severity)                                                                       \
    if (::quendo::platform::LogRecord quendoRecord(::quendo::platform::severity,                   \
                                                   ::quendo::platform::logSourceOf(__FILE__),      \
                                                   __PRETTY_FUNCTION__, __LINE__);                 \
        !quendoRecord) {                                                                           \
    } else                                                                                         \
        quendoRecord.stream()

/// First in the body of an operation, once: traces its call.
#define QUENDO_TRACE_SCOPE()                                                                       \
    static constexpr auto quendoTraceSource = ::quendo::platform::logSourceOf(__FILE__);           \
    const ::quendo::platform::TraceScope quendoTraceScope(quendoTraceSource, __PRETTY_FUNCTION__,  \
                                                          __LINE__)

#define QUENDO_LOG_CAUGHT_EXCEPTION()                                                              \
    ::quendo::platform::logCaughtException(::quendo::platform::logSourceOf(__FILE__),              \
                                           __PRETTY_FUNCTION__, __LINE__)
