#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace quendo::host {

/// The candidate that `word` is probably a misspelling or an abbreviation of; empty when there is
/// none.
std::string suggestionFor(std::string_view word, const std::vector<std::string>& candidates);

/// "x is not a command (did you mean y?)"; `word` may hold anything. Words of git's own commands
/// are known too.
std::string unknownCommand(const CLI::App& program, const std::string& word);

/// "--x is not an option of command (did you mean --y?)", with the options of `command`, which may
/// be `program` itself.
std::string unknownOption(const CLI::App& program, const CLI::App& command,
                          const std::string& word);

} // namespace quendo::host
