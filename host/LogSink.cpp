#include "host/LogSink.h"

#include "host/VisibleText.h"

#include <boost/core/null_deleter.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/utility/formatting_ostream.hpp>
#include <boost/make_shared.hpp>

#include <iostream>
#include <limits>
#include <string>

namespace quendo::host {
namespace {

namespace log = boost::log;

const char* nameOf(int severity) {
    if (severity >= static_cast<int>(platform::Severity::CaughtException))
        return "exception";
    return severity >= static_cast<int>(platform::Severity::Notice) ? "notice" : "detail";
}

void formatRecord(const log::record_view& record, log::formatting_ostream& stream) {
    stream << nameOf(log::extract_or_default<int>("Severity", record, 0)) << " "
           << log::extract_or_default<std::string>("Source", record, std::string()) << ": ";
    const auto text = log::extract_or_default<std::string>("Message", record, std::string());
    stream << visibleText(text);
    if (text == "enter" || text == "leave") // of what, only the function says
        stream << " " << log::extract_or_default<std::string>("Function", record, std::string());
}

} // namespace

void setUpLog(std::optional<platform::Severity> lowest) {
    if (!lowest) {
        platform::setLogThreshold(static_cast<platform::Severity>(std::numeric_limits<int>::max()));
        return;
    }
    platform::setLogThreshold(*lowest);
    auto backend = boost::make_shared<log::sinks::text_ostream_backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::clog, boost::null_deleter()));
    backend->auto_flush(true);
    auto sink =
        boost::make_shared<log::sinks::synchronous_sink<log::sinks::text_ostream_backend>>(backend);
    sink->set_filter([least = static_cast<int>(*lowest)](const log::attribute_value_set& values) {
        const auto severity = log::extract<int>("Severity", values);
        return severity && *severity >= least;
    });
    sink->set_formatter(&formatRecord);
    log::core::get()->add_sink(sink);
}

} // namespace quendo::host
