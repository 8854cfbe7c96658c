#include "tests/integration/Scenarios.h"

#include <boost/algorithm/hex.hpp>
#include <nlohmann/json.hpp>

namespace quendo::test {
namespace {

using nlohmann::json;
using Words = std::vector<std::string>;

/// In place of the records of whoever refuses.
const Records refusal{{"refused", ""}};

std::string printable(const std::string& who, const Records& records) {
    auto text = "  " + who + ":\n";
    for (const auto& [columns, path] : records)
        text += "    " + columns + " " + testing::PrintToString(path.substr(0, 120)) + "\n";
    return text;
}

Words split(std::string_view text) {
    std::istringstream stream{std::string(text)};
    return {std::istream_iterator<std::string>(stream), {}};
}

/// What git says, in the program's words.
Records askGit(const GitSandbox& sandbox, const Scenario& scenario, bool ignored) {
    const auto result =
        sandbox.tryGit({"--no-optional-locks", "status", "--porcelain=v1", "-uall", "--no-renames",
                        "-z", ignored ? "--ignored=matching" : "--ignored=no"},
                       sandbox.work() / scenario.at);
    if (result.exitCode != 0)
        return refusal;
    auto records = recordsIn(result.output);
    for (const auto& path : split(scenario.unverified))
        if (const auto record = std::ranges::find(records, path, &Record::path);
            record == records.end())
            records.push_back({".M", path});
        else
            record->columns[1] = 'M';
    std::ranges::stable_sort(records, {}, &Record::path);
    return records;
}

Records askQuendo(const GitSandbox& sandbox, const fs::path& root, bool ignored) {
    Words arguments{"status", "--porcelain", "-z", root.native()};
    if (ignored)
        arguments.emplace_back("--ignored");
    const auto result = runQuendo(sandbox, arguments);
    if (const auto problem = notRefused(result);
        result.exitCode != 0 ? !problem.empty() : !result.errors.empty())
        throw std::runtime_error(problem);
    return result.exitCode != 0 ? refusal : recordsIn(result.output);
}

/// The states that a path may have whose first record has these columns.
Words statesFor(const std::string& columns) {
    static const std::set<std::string> conflicts{"DD", "AU", "UD", "UA", "DU", "AA", "UU"};
    return conflicts.contains(columns) ? Words{"Conflicted"}
           : columns == "??"           ? Words{"NotUnderSourceControl", "External", "Unknown"}
           : columns == "!!"           ? Words{"Ignored", "External"}
           : columns[0] == 'D'         ? Words{"Deleted"}
           : columns[1] == 'D'         ? Words{"Missing", "Unknown"}
           : columns[0] == 'A' || columns[1] == 'A' ? Words{"Added", "Unknown"}
                                                    : Words{"Modified", "Unknown"};
}

/// What does not fit between the states, the records and git's list of tracked files.
std::string compareStates(const GitSandbox& sandbox, const fs::path& root, const Records& records) {
    std::map<std::string, Words> columns;
    for (const auto& record : records)
        columns[record.path.substr(0, record.path.find_last_not_of('/') + 1)].push_back(
            record.columns);
    std::string problems;
    std::set<std::string> seen;
    std::istringstream output(
        runQuendo(sandbox, {"status", "--json", "--all", "--ignored", root.native()}).output);
    for (std::string line; std::getline(output, line);) {
        const auto object = json::parse(line);
        auto path = object["path"].get<std::string>();
        if (object.contains("path_hex"))
            path = boost::algorithm::unhex(object["path_hex"].get<std::string>());
        const auto state = object["state"].get<std::string>();
        auto shown = object["properties"].value("columns", json::array());
        if (shown.is_string())
            shown = json::array({shown});
        const auto wanted = columns.extract(path);
        const auto allowed = wanted             ? statesFor(wanted.mapped().front())
                             : object["folder"] ? Words{state}
                                                : Words{"Unmodified", "External", "Unknown"};
        if (!seen.insert(path).second || shown != json(wanted ? wanted.mapped() : Words{}) ||
            std::ranges::find(allowed, state) == allowed.end())
            problems += "wrong, or there twice: " + line + "\n";
    }
    for (const auto& [path, missing] : columns)
        problems += path + " is not in --json\n";
    for (const auto& [none, path] : recordsIn(sandbox.git({"ls-files", "-tz"}, root), '\0', 1))
        if (!seen.contains(path))
            problems += "tracked " + path + " is not in --json\n";
    return problems;
}

/// @return what is wrong with the row, empty when it agrees
std::string compare(const Scenario& scenario) {
    const GitSandbox sandbox;
    runScript(sandbox, scenario.script);
    const auto root = sandbox.work() / scenario.at;
    const auto git = askGit(sandbox, scenario, true);
    std::string problems;
    const auto expectEqual = [&](const Records& wanted, const Records& got, const char* question) {
        if (wanted != got)
            problems += question + printable("git", wanted) + printable("instead", got);
    };
    expectEqual(git, askQuendo(sandbox, root, true), "with --ignored\n");
    expectEqual(askGit(sandbox, scenario, false), askQuendo(sandbox, root, false), "without\n");
    for (const auto& columns : split(scenario.shows))
        if (columns == "-" ? !git.empty()
                           : std::ranges::find(git, columns, &Record::columns) == git.end())
            problems += "the row shows no " + columns + "\n" + printable("git", git);
    return git == refusal ? problems : problems + compareStates(sandbox, root, git);
}

// One test, so that the rows run in one process, side by side.
TEST(Truth, AgreesWithGitInEveryCase) {
    const auto& rows = scenarios();
    std::vector<std::string> problems(rows.size(), "it was not run");
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        for (std::size_t row = next++; row < rows.size(); row = next++) {
            try {
                problems[row] = compare(rows[row]);
            } catch (const std::exception& error) {
                problems[row] = error.what();
            }
        }
    };
    {
        std::jthread beside(work);
        work();
    }
    for (std::size_t row = 0; row < rows.size(); ++row)
        EXPECT_EQ(problems[row], "") << rows[row].name;
}

} // namespace
} // namespace quendo::test
