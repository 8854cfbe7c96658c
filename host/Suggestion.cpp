#include "host/Suggestion.h"

#include "host/VisibleText.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <map>
#include <utility>

namespace quendo::host {
namespace {

constexpr std::size_t longestWord = 64; // the distance takes time with the product of the lengths

/// Insertions, deletions, replacements and swaps of neighbours that make one of the other.
std::size_t distance(std::string_view one, std::string_view other) {
    std::vector<std::size_t> beforeLast(other.size() + 1), last(other.size() + 1), row;
    for (std::size_t j = 0; j <= other.size(); ++j)
        last[j] = j;
    for (std::size_t i = 1; i <= one.size(); ++i) {
        row.assign(other.size() + 1, i);
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const bool isSame = one[i - 1] == other[j - 1];
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (isSame ? 0U : 1U)});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
        }
        beforeLast = std::exchange(last, row);
    }
    return last.back();
}

/// What people call commands who come from elsewhere.
const std::map<std::string, std::string> synonyms = {
    {"blame", "log"},      {"ci", "checkin"},       {"co", "revert"},   {"checkout", "revert"},
    {"commit", "checkin"}, {"delete", "remove"},    {"edit", "lock"},   {"history", "log"},
    {"ls", "status"},      {"mv", "move"},          {"rename", "move"}, {"reset", "discard"},
    {"restore", "revert"}, {"resolved", "resolve"}, {"rm", "remove"},   {"show", "export"},
    {"st", "status"},      {"undo", "revert"},      {"cat", "export"},
};

std::string withSuggestion(std::string text, const std::string& suggestion) {
    return suggestion.empty() ? text : std::move(text) + " (did you mean " + suggestion + "?)";
}

std::vector<std::string> optionsOf(const CLI::App& app) {
    std::vector<std::string> names;
    for (const auto* option : app.get_options()) {
        for (const auto& name : option->get_lnames())
            names.push_back("--" + name);
        for (const auto& name : option->get_snames())
            names.push_back("-" + name);
    }
    return names;
}

} // namespace

std::string suggestionFor(std::string_view word, const std::vector<std::string>& candidates) {
    if (word.size() < 2 || word.size() > longestWord)
        return {};
    std::string best;
    auto least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const auto& candidate : candidates) {
        const auto steps = candidate.starts_with(word) ? 1 : distance(word, candidate);
        if (steps < least && steps < candidate.size()) {
            least = steps;
            best = candidate;
        }
    }
    return best;
}

std::string unknownCommand(const CLI::App& program, const std::string& word) {
    std::vector<std::string> names;
    for (const auto* command : program.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    const auto known = synonyms.find(word);
    return withSuggestion(visiblePath(word) + " is not a command",
                          known != synonyms.end() ? known->second : suggestionFor(word, names));
}

std::string unknownOption(const CLI::App& program, const CLI::App& command,
                          const std::string& word) {
    const auto name = word.substr(0, word.find('='));
    const auto own = optionsOf(command);
    auto text = visiblePath(name) + " is not an option of ";
    if (&command != &program) {
        if (std::ranges::count(optionsOf(program), name) != 0)
            return text + command.get_name() + "; it goes before the command";
        return withSuggestion(text + command.get_name(), suggestionFor(name, own));
    }
    for (const auto* each : program.get_subcommands([](const CLI::App*) { return true; }))
        if (std::ranges::count(optionsOf(*each), name) != 0)
            return text + "the program; an option of a command goes after the command";
    return withSuggestion(text + "the program", suggestionFor(name, own));
}

} // namespace quendo::host
