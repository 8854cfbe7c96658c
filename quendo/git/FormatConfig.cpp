#include "quendo/git/FormatConfig.h"

#include <algorithm>
#include <cctype>

namespace quendo::git {
namespace {

constexpr std::string_view blanks = " \t\r";

void trimFront(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
}

std::string lowered(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

// Takes a value off the front of `text`, to the end of its line: quotes, escapes, comments and
// continued lines as git reads them.
std::string takeValue(std::string_view& text, bool& regular) {
    std::string value;
    std::size_t kept = 0; // blanks at the end count only inside quotes
    bool quoted = false;
    trimFront(text);
    while (!text.empty()) {
        char c = text.front();
        text.remove_prefix(1);
        if (c == '\n') {
            regular &= !quoted;
            break;
        }
        if (!quoted && (c == '#' || c == ';')) {
            text.remove_prefix(std::min(text.find('\n'), text.size()));
            continue;
        }
        if (c == '"') {
            quoted = !quoted;
            kept = value.size();
            continue;
        }
        if (c == '\\') {
            if (text.starts_with("\r\n"))
                text.remove_prefix(1);
            const char escaped = text.empty() ? '\n' : text.front();
            text.remove_prefix(std::min<std::size_t>(1, text.size()));
            if (escaped == '\n')
                continue;
            const auto which = std::string_view("tbn\\\"").find(escaped);
            regular &= which != std::string_view::npos;
            c = which == std::string_view::npos ? escaped : "\t\b\n\\\""[which];
            value += c;
            kept = value.size();
            continue;
        }
        value += c;
        if (quoted || blanks.find(c) == std::string_view::npos)
            kept = value.size();
    }
    value.resize(kept);
    return value;
}

} // namespace

FormatConfig FormatConfig::parse(
    std::string_view text,
    const std::function<void(const std::string&, const std::string&, const std::string&)>& each) {
    FormatConfig config;
    std::string section;
    if (text.starts_with("\xEF\xBB\xBF"))
        text.remove_prefix(3);
    while (true) {
        text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
        if (text.empty())
            return config;
        if (text.front() == '#' || text.front() == ';') {
            text.remove_prefix(std::min(text.find('\n'), text.size()));
            continue;
        }
        if (text.front() == '[') {
            // A section with a quoted part is none of ours, but may hold a bracket in the quotes.
            std::size_t end = 1;
            bool quoted = false;
            for (; end < text.size() && text[end] != '\n' && (quoted || text[end] != ']'); ++end) {
                if (text[end] == '"')
                    quoted = !quoted;
                else if (quoted && text[end] == '\\')
                    ++end;
            }
            if (end >= text.size() || text[end] != ']') {
                config.isRegular = false;
                return config;
            }
            section = lowered(text.substr(1, end - 1));
            text.remove_prefix(end + 1);
            continue;
        }
        std::size_t length = 0;
        while (length < text.size() &&
               (std::isalnum(static_cast<unsigned char>(text[length])) || text[length] == '-'))
            ++length;
        if (length == 0) {
            config.isRegular = false;
            return config;
        }
        const auto last = lowered(text.substr(0, length));
        text.remove_prefix(length);
        trimFront(text);
        std::string value = "true"; // a name alone is a boolean that is on
        if (text.starts_with('=')) {
            text.remove_prefix(1);
            value = takeValue(text, config.isRegular);
        } else if (!text.empty() && text.front() != '\n' && text.front() != '#' &&
                   text.front() != ';') {
            config.isRegular = false;
            return config;
        }
        if (each)
            each(section, last, value);
        if (section == "core" || section == "extensions")
            config.values[section + "." + last] = value;
    }
}

} // namespace quendo::git
