#include "tests/support/LogCapture.h"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/core/record_view.hpp>
#include <boost/log/sinks/sink.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <algorithm>
#include <mutex>

namespace quendo::test {

namespace log = boost::log;

struct LogCapture::Sink final : log::sinks::sink {
    Sink() : sink(false) {}

    bool will_consume(const log::attribute_value_set& values) override {
        return log::extract_or_default<std::string>("Channel", values, std::string()) == "quendo";
    }
    void consume(const log::record_view& record) override {
        const std::string none;
        const std::lock_guard lock(mutex);
        records.push_back({log::extract_or_default<int>("Severity", record, -1),
                           log::extract_or_default<std::string>("Source", record, none),
                           log::extract_or_default<std::string>("Function", record, none),
                           log::extract_or_default<int>("Line", record, -1),
                           log::extract_or_default<std::string>("Message", record, none)});
    }
    void flush() override {}

    std::mutex mutex;
    std::vector<CapturedRecord> records;
};

// The core wants Boost's pointer; its deleter holds ours.
LogCapture::LogCapture() : m_sink(std::make_shared<Sink>()) {
    log::core::get()->add_sink(
        boost::shared_ptr<log::sinks::sink>(m_sink.get(), [held = m_sink](auto*) {}));
}

LogCapture::~LogCapture() {
    log::core::get()->remove_sink(boost::shared_ptr<log::sinks::sink>(m_sink.get(), [](auto*) {}));
}

std::vector<CapturedRecord> LogCapture::records() const {
    const std::lock_guard lock(m_sink->mutex);
    return m_sink->records;
}

std::size_t LogCapture::count(const std::string& text) const {
    return static_cast<std::size_t>(std::ranges::count_if(
        records(), [&](const auto& record) { return record.message.starts_with(text); }));
}

} // namespace quendo::test
