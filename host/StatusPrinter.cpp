#include "host/StatusPrinter.h"

#include "host/HostError.h"
#include "host/JsonText.h"
#include "host/VisibleText.h"
#include "quendo/platform/UString.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

namespace quendo::host {
namespace {

constexpr std::u16string_view untrackedColumns = u"??";
constexpr std::u16string_view ignoredColumns = u"!!";

struct Word {
    LocalStatus status;
    std::string_view text;
    std::string_view colour;
};

/// In the order of the summary.
constexpr std::array<Word, 10> words = {{
    {LocalStatus::Conflicted, "conflicted", "\x1b[1;31m"},
    {LocalStatus::Modified, "modified", "\x1b[33m"},
    {LocalStatus::Added, "added", "\x1b[32m"},
    {LocalStatus::Deleted, "deleted", "\x1b[31m"},
    {LocalStatus::Missing, "missing", "\x1b[31m"},
    {LocalStatus::Unknown, "unknown", "\x1b[1;35m"},
    {LocalStatus::External, "external", "\x1b[36m"},
    {LocalStatus::NotUnderSourceControl, "untracked", "\x1b[34m"},
    {LocalStatus::Ignored, "ignored", "\x1b[2m"},
    {LocalStatus::Unmodified, "unmodified", ""},
}};
constexpr std::size_t wordWidth = 10;

std::size_t wordOf(LocalStatus status) {
    const auto word = std::ranges::find(words, status, &Word::status);
    return static_cast<std::size_t>(word - words.begin());
}

std::string shownPath(const UString& text) {
    try {
        return visiblePath(Path(text));
    } catch (const InvalidPathError&) {
        return visiblePath(toUtf8(text));
    }
}

/// What a person wants to know beside the state, in parentheses; mostly nothing.
std::string detailsOf(const FileState& state) {
    std::string details;
    for (const auto& each : state.getProperties()) {
        std::string detail;
        if (each.getName() == property::renamedFrom)
            detail = "from " + shownPath(each.getValue());
        else if (each.getName() == property::unverified)
            detail = "not verified: its filter " + visibleText(toUtf8(each.getValue())) +
                     " is named by the repository alone";
        else if (each.getName() != property::columns && each.getName() != property::refused)
            detail = visibleText(toUtf8(each.getValue()));
        if (!detail.empty())
            details += (details.empty() ? "  (" : "; ") + detail;
    }
    return details.empty() ? details : details + ")";
}

/// Names paths as they look from the current folder.
class Viewpoint {
public:
    Viewpoint(const Path& current, const Path& root)
        : m_current(current),
          m_relative(current == root || current.isBelow(root) || root.isBelow(current)) {}

    std::string nameOf(const Path& path) const {
        return visiblePath(m_relative ? path.lexicallyRelative(m_current) : path);
    }

private:
    Path m_current;
    bool m_relative;
};

std::string padded(std::string_view word, std::string_view colour = {}) {
    std::string text(colour);
    text += word;
    if (!colour.empty())
        text += "\x1b[0m";
    return text.append(wordWidth - word.size() + 2, ' ');
}

std::string lineOf(const Viewpoint& viewpoint, const Path& path, const FileState& state,
                   bool colours) {
    const auto& word = words[std::min(wordOf(state.getState()), words.size() - 1)];
    return padded(word.text, colours ? word.colour : std::string_view()) + viewpoint.nameOf(path) +
           (state.isFolder() ? "/" : "") + detailsOf(state) + "\n";
}

nlohmann::ordered_json objectOf(const StatusReport& report, const Path& path,
                                const FileState& state) {
    nlohmann::ordered_json line;
    line["system"] = report.system;
    putPath(line, pathFromRoot(path, report.root));
    if (report.isOneOfSeveral)
        putPath(line, report.root, "root");
    line["state"] = toString(state.getState());
    line["folder"] = state.isFolder();
    auto& properties = line["properties"] = nlohmann::ordered_json::object();
    for (const auto& each : state.getProperties()) {
        auto& value = properties[toUtf8(each.getName())];
        if (value.is_null())
            value = toUtf8(each.getValue());
        else if (value.is_array())
            value.push_back(toUtf8(each.getValue()));
        else
            value = nlohmann::ordered_json::array({value, toUtf8(each.getValue())});
    }
    return line;
}

/// In the order of the paths.
std::vector<StatusChange> shownOf(const StatusReport& report, std::vector<StatusChange> changes) {
    std::erase_if(changes, [&](const StatusChange& change) {
        const auto shows = [&](const std::optional<FileState>& state) {
            return state && report.shows(change.path, *state);
        };
        return (change.path != report.folder && !change.path.isBelow(report.folder)) ||
               (!shows(change.before) && !shows(change.after));
    });
    std::ranges::sort(changes, {}, &StatusChange::path);
    return changes;
}

} // namespace

bool StatusReport::shows(const Path& path, const FileState& state) const noexcept {
    const auto status = state.getState();
    const bool untrackedKind =
        status == LocalStatus::NotUnderSourceControl || status == LocalStatus::Ignored;
    if (status == LocalStatus::Unmodified)
        return selection.all;
    if ((status == LocalStatus::Ignored && !selection.ignored) ||
        (selection.untrackedOnly && !untrackedKind))
        return false;
    // A folder that its back end has no columns for tells nothing that what lies in it does not:
    // it holds untracked files, or is a working copy of its own with nothing to say. The folder
    // that was asked for may be in one that is ignored as a whole.
    const bool impliedKind = untrackedKind || status == LocalStatus::External;
    return selection.all || !impliedKind || !state.isFolder() ||
           state.findProperty(property::columns) != nullptr ||
           (path == folder && status == LocalStatus::Ignored && states.size() == 1);
}

Path pathFromRoot(const Path& path, const Path& root) {
    return path.lexicallyRelative(root);
}

std::string nameFrom(const Path& current, const Path& root, const Path& path) {
    return Viewpoint(current, root).nameOf(path);
}

std::string porcelainStatus(const StatusReport& report, char end) {
    struct Record {
        std::string path;
        const UString* columns;
    };
    std::vector<Record> records;
    std::size_t size = 0;
    for (const auto& [path, state] : report.states) {
        // A script that reads columns would take a path without them for unmodified.
        if (const auto* refused = state.findProperty(property::refused))
            throw HostError(visibleText(toUtf8(*refused)));
        for (const auto& each : state.getProperties()) {
            if (each.getName() != property::columns)
                continue;
            const bool untracked = each.getValue() == untrackedColumns;
            const bool ignored = each.getValue() == ignoredColumns;
            if ((ignored && !report.selection.ignored) ||
                (report.selection.untrackedOnly && !untracked && !ignored))
                continue;
            std::string bytes = pathFromRoot(path, report.root).toNative();
            if (state.isFolder() && (untracked || ignored))
                bytes += '/';
            size += bytes.size() + 4;
            records.push_back({std::move(bytes), &each.getValue()});
        }
    }
    std::ranges::stable_sort(records, {}, &Record::path);
    std::string result;
    result.reserve(size);
    for (const auto& record : records)
        result.append(toUtf8(*record.columns)).append(1, '\t').append(record.path).append(1, end);
    return result;
}

std::string jsonStatus(const StatusReport& report) {
    std::string result;
    for (const auto& [path, state] : report.states) {
        if (report.shows(path, state))
            result += jsonLine(objectOf(report, path, state));
    }
    return result;
}

std::string jsonChanges(const StatusReport& report, std::vector<StatusChange> changes) {
    std::string result;
    for (const auto& change : shownOf(report, std::move(changes))) {
        nlohmann::ordered_json line;
        if (change.after) {
            line = objectOf(report, change.path, *change.after);
        } else {
            line["system"] = report.system;
            putPath(line, pathFromRoot(change.path, report.root));
            line["state"] = nullptr;
        }
        if (change.before)
            line["before"] = toString(change.before->getState());
        else
            line["before"] = nullptr;
        result += jsonLine(line);
    }
    return result;
}

std::string humanChanges(const StatusReport& report, std::vector<StatusChange> changes,
                         const Path& current, bool colours) {
    const Viewpoint viewpoint(current, report.root);
    std::string result;
    for (const auto& change : shownOf(report, std::move(changes))) {
        if (change.after)
            result += lineOf(viewpoint, change.path, *change.after, colours);
        else
            result += padded("gone") + viewpoint.nameOf(change.path) +
                      (change.before->isFolder() ? "/" : "") + "\n";
    }
    return result;
}

std::string humanStatus(const StatusReport& report, const Path& current, bool colours) {
    const Viewpoint viewpoint(current, report.root);
    std::array<std::size_t, words.size() + 1> counts{};
    std::string result;
    for (const auto& [path, state] : report.states) {
        const bool isAskedFile =
            report.isFile && path == report.folder && !report.selection.untrackedOnly;
        if (!isAskedFile && !report.shows(path, state))
            continue;
        ++counts[wordOf(state.getState())];
        result += lineOf(viewpoint, path, state, colours);
    }
    std::string summary;
    for (std::size_t kind = 0; kind < words.size(); ++kind) {
        if (counts[kind] != 0)
            summary += (summary.empty() ? "" : ", ") + std::to_string(counts[kind]) + " " +
                       std::string(words[kind].text);
    }
    if (summary.empty())
        summary = report.selection.untrackedOnly ? "nothing untracked" : "nothing differs";
    return result + summary + " in " +
           (report.pathCount == 1 ? "" : std::to_string(report.pathCount) + " paths of ") +
           visiblePath(report.folder) + " (" + visibleText(report.system) + ")\n";
}

} // namespace quendo::host
