#pragma once

#include <memory>
#include <string>
#include <vector>

namespace quendo::test {

struct CapturedRecord {
    int severity = -1;
    std::string source, function;
    int line = -1;
    std::string message;
};

/// Takes every record of the library's log channel while it lives, from all threads.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    std::vector<CapturedRecord> records() const;
    /// How many messages start with `text`.
    std::size_t count(const std::string& text) const;

private:
    struct Sink;
    const std::shared_ptr<Sink> m_sink;
};

} // namespace quendo::test
