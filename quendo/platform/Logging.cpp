#include "quendo/platform/Logging.h"

#include <boost/exception/diagnostic_information.hpp>
#include <boost/log/attributes/attribute_set.hpp>
#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/core/record.hpp>
#include <boost/log/sinks/sink.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

#include <atomic>
#include <sstream>
#include <string>
#include <utility>

namespace quendo::platform {
namespace {

namespace log = boost::log;

std::atomic<int> lowestSeverity{0};

// Takes nothing; that a sink is there at all is what keeps the default one off the terminal.
class SilentSink final : public log::sinks::sink {
public:
    SilentSink() : sink(false) {}
    bool will_consume(const log::attribute_value_set&) override { return false; }
    void consume(const log::record_view&) override {}
    void flush() override {}
};

log::attribute_set attributesOf(Severity severity) {
    log::attribute_set attributes;
    attributes["Channel"] = log::attributes::constant<std::string>("quendo");
    attributes["Severity"] = log::attributes::constant<int>(static_cast<int>(severity));
    return attributes;
}

// Never destroyed: destructors of statics and late threads still write records. The attribute sets
// are made once because making one costs more than a whole record that nobody takes, and the names
// because Boost's table of names is destroyed when the process ends.
struct Channel {
    log::core_ptr core = log::core::get();
    log::attribute_set detail = attributesOf(Severity::Detail);
    log::attribute_set notice = attributesOf(Severity::Notice);
    log::attribute_set caughtException = attributesOf(Severity::CaughtException);
    log::attribute_name source = "Source";
    log::attribute_name function = "Function";
    log::attribute_name line = "Line";
    log::attribute_name message = "Message";

    Channel() { core->add_sink(boost::make_shared<SilentSink>()); }

    const log::attribute_set& attributes(Severity severity) const {
        return severity == Severity::Detail   ? detail
               : severity == Severity::Notice ? notice
                                              : caughtException;
    }
};

const Channel& channel() {
    static const Channel& instance = *new Channel;
    return instance;
}

template <class Value>
void insert(log::record& record, log::attribute_name name, Value value) {
    record.attribute_values().insert(name, log::attributes::make_attribute_value(std::move(value)));
}

} // namespace

struct LogRecord::Impl {
    log::record record;
    std::ostringstream text;
};

void setLogThreshold(Severity lowest) noexcept {
    lowestSeverity.store(static_cast<int>(lowest), std::memory_order_relaxed);
}

LogRecord::LogRecord(Severity severity, std::string_view source, const char* function,
                     int line) noexcept {
    if (static_cast<int>(severity) < lowestSeverity.load(std::memory_order_relaxed))
        return;
    try {
        auto record = channel().core->open_record(channel().attributes(severity));
        if (!record)
            return;
        insert(record, channel().source, std::string(source));
        insert(record, channel().function, std::string(function));
        insert(record, channel().line, line);
        m_impl = std::make_unique<Impl>();
        m_impl->record = std::move(record);
    } catch (...) {
        // A host's filter failed, or memory is short: no reason to fail the work that is logged.
    }
}

LogRecord::~LogRecord() {
    if (m_impl == nullptr)
        return;
    try {
        insert(m_impl->record, channel().message, m_impl->text.str());
        channel().core->push_record(std::move(m_impl->record));
    } catch (...) {
        // As above: a sink that fails is the host's business.
    }
}

std::ostream& LogRecord::stream() noexcept {
    return m_impl->text;
}

TraceScope::TraceScope(std::string_view source, const char* function, int line) noexcept
    : m_source(source), m_function(function), m_line(line) {
    if (LogRecord record(Severity::Detail, source, function, line); record) {
        record.stream() << "enter";
        m_isTaken = true;
    }
}

void TraceScope::leave() const noexcept {
    if (LogRecord record(Severity::Detail, m_source, m_function, m_line); record)
        record.stream() << "leave";
}

void logCaughtException(std::string_view source, const char* function, int line) noexcept {
    try {
        if (LogRecord record(Severity::CaughtException, source, function, line); record)
            record.stream() << "Exception caught: "
                            << boost::current_exception_diagnostic_information();
    } catch (...) {
        // The exception's own what() failed.
    }
}

} // namespace quendo::platform
