#include "host/RevisionPrinter.h"

#include "host/JsonText.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "quendo/platform/UString.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string_view>

namespace quendo::host {
namespace {

constexpr std::size_t hashLength = 40;
constexpr std::size_t shortLength = 10;

std::string formatted(std::chrono::system_clock::time_point date, bool local, const char* format) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
    const std::time_t time = std::chrono::system_clock::to_time_t(seconds);
    std::tm parts{};
    if ((local ? ::localtime_r(&time, &parts) : ::gmtime_r(&time, &parts)) == nullptr)
        return {};
    char buffer[64];
    return {buffer, std::strftime(buffer, sizeof buffer, format, &parts)};
}

} // namespace

std::string shortID(const Revision& revision) {
    const std::string id = toUtf8(revision.id);
    const bool isHash = id.size() >= hashLength && std::ranges::all_of(id, [](char c) {
                            return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
                        });
    return visibleText(isHash ? std::string_view(id).substr(0, shortLength) : id);
}

std::string humanRevision(const Revision& revision, const Path& file, const Path& root) {
    const std::u16string_view message = revision.message;
    auto line = shortID(revision) + "  " + formatted(revision.date, true, "%Y-%m-%d %H:%M") + "  " +
                visibleText(toUtf8(revision.author)) + "  " +
                visibleText(toUtf8(message.substr(0, message.find(u'\n'))));
    if (revision.path != file)
        line += "  (as " + visiblePath(pathFromRoot(revision.path, root)) + ")";
    return line + "\n";
}

std::string jsonRevision(const Revision& revision, const Path& root, const std::string& system) {
    nlohmann::ordered_json line;
    line["system"] = system;
    line["id"] = toUtf8(revision.id);
    line["author"] = toUtf8(revision.author);
    line["email"] = toUtf8(revision.authorEmail);
    line["date"] = formatted(revision.date, false, "%Y-%m-%dT%H:%M:%SZ");
    line["message"] = toUtf8(revision.message);
    putPath(line, pathFromRoot(revision.path, root));
    return jsonLine(line);
}

} // namespace quendo::host
