#include "quendo/git/PorcelainRecord.h"

#include <algorithm>

namespace quendo::git {
namespace {

std::optional<std::string_view> takeField(std::string_view& text) {
    const auto end = text.find(' ');
    if (end == std::string_view::npos || end == 0)
        return std::nullopt;
    const auto field = text.substr(0, end);
    text.remove_prefix(end + 1);
    return field;
}

bool areColumns(std::string_view text) {
    return text.size() == 2 && text.find_first_not_of(".MTADRCU") == std::string_view::npos;
}

std::optional<PorcelainRecord> parseFields(std::string_view text) {
    using Kind = PorcelainRecord::Kind;
    PorcelainRecord record{};
    const auto kind = takeField(text);
    if (!kind || kind->size() != 1)
        return std::nullopt;
    int fieldsBeforePath = 0; // behind columns and submodule
    switch (kind->front()) {
    case '1':
        record.kind = Kind::Changed;
        fieldsBeforePath = 5;
        break;
    case 'u':
        record.kind = Kind::Unmerged;
        fieldsBeforePath = 7;
        break;
    case '?':
        record.kind = Kind::Untracked;
        record.columns = "??";
        break;
    case '!':
        record.kind = Kind::Ignored;
        record.columns = "!!";
        break;
    default:
        return std::nullopt;
    }
    if (fieldsBeforePath != 0) {
        const auto columns = takeField(text);
        const auto submodule = columns ? takeField(text) : std::nullopt;
        if (!submodule || !areColumns(*columns) || submodule->size() != 4)
            return std::nullopt;
        record.columns = *columns;
        // An index with a resolved side beside the others, which git itself does not make.
        if (columns->find('U') != std::string_view::npos)
            record.kind = Kind::Unmerged;
        if (submodule->front() == 'S') {
            record.submoduleCommit = (*submodule)[1] == 'C';
            record.submoduleModified = (*submodule)[2] == 'M';
            record.submoduleUntracked = (*submodule)[3] == 'U';
        }
        for (; fieldsBeforePath > 0; --fieldsBeforePath)
            if (!takeField(text))
                return std::nullopt;
    }
    if (text.ends_with('/')) {
        record.endsWithSlash = true;
        text.remove_suffix(1);
    }
    record.path = text;
    return record;
}

bool isOfIndex(const PorcelainRecord& record) {
    return record.kind == PorcelainRecord::Kind::Changed ||
           record.kind == PorcelainRecord::Kind::Unmerged;
}

bool hasPossiblePath(const PorcelainRecord& record) {
    return isPossiblePath(record.path) && !(isOfIndex(record) && record.endsWithSlash);
}

} // namespace

bool isPossiblePath(std::string_view path) {
    for (std::size_t start = 0; start <= path.size();) {
        const auto end = std::min(path.find('/', start), path.size());
        const auto part = path.substr(start, end - start);
        if (part.empty() || part == "." || part == "..")
            return false;
        start = end + 1;
    }
    return true;
}

std::optional<PorcelainRecord> PorcelainRecord::parse(std::string_view text) {
    auto record = parseFields(text);
    return record && hasPossiblePath(*record) ? record : std::nullopt;
}

bool PorcelainRecord::namesImpossiblePath(std::string_view text) {
    const auto record = parseFields(text);
    return record && isOfIndex(*record) && !hasPossiblePath(*record);
}

} // namespace quendo::git
