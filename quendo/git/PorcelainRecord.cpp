#include "quendo/git/PorcelainRecord.h"

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

} // namespace

std::optional<PorcelainRecord> PorcelainRecord::parse(std::string_view text) {
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
    if (text.empty() || text.front() == '/')
        return std::nullopt;
    record.path = text;
    return record;
}

} // namespace quendo::git
