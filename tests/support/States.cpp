#include "tests/support/States.h"

#include "tests/support/RandomWork.h"

#include <algorithm>
#include <sstream>

namespace quendo::test {

std::string differences(const std::map<Path, FileState>& cached,
                        const std::map<Path, FileState>& asked, std::set<Path>* paths) {
    std::string text;
    const auto tell = [&](const char* what, const auto& from, const auto& other) {
        for (const auto& [path, state] : from) {
            const auto found = other.find(path);
            // A folder without files is answered when it is asked for, but in no folder's answer.
            if (&from == &cached && found == other.end() && state.isFolder() &&
                isWithoutFiles(path.toNative()))
                continue;
            if (found != other.end() && found->second == state)
                continue;
            text += std::string(what) + " " + std::string(toString(state.getState())) +
                    (state.isFolder() ? " folder " : " ") + path.toUtf8() + "\n";
            if (paths != nullptr)
                paths->insert(path);
        }
    };
    tell("cached:", cached, asked);
    tell("asked:", asked, cached);
    return text;
}

std::vector<std::string> recordsOf(const std::map<Path, FileState>& states, const Path& root) {
    std::vector<std::string> records;
    for (const auto& [path, state] : states)
        for (const auto& one : state.getProperties())
            if (one.getName() == property::columns) {
                const auto columns = toUtf8(one.getValue());
                const bool slash = state.isFolder() && (columns == "??" || columns == "!!");
                records.push_back(columns + " " + path.lexicallyRelative(root).toNative() +
                                  (slash ? "/" : ""));
            }
    std::ranges::sort(records);
    return records;
}

std::vector<std::string> recordsOfGit(const GitSandbox& sandbox) {
    std::istringstream output(sandbox.git({"--no-optional-locks", "status", "--porcelain=v1", "-z",
                                           "-uall", "--ignored=matching", "--no-renames"}));
    std::vector<std::string> records;
    for (std::string record; std::getline(output, record, '\0');) {
        std::replace(record.begin(), record.begin() + 2, ' ', '.');
        records.push_back(record);
    }
    std::ranges::sort(records);
    return records;
}

} // namespace quendo::test
