#pragma once

#include "tests/support/GitSandbox.h"
#include "tests/support/Testing.h"

namespace quendo::test {

/// One awkward working copy, and what git must say of it for the row to be worth something.
struct Scenario {
    /// "case" or "case: variant"
    std::string_view name;
    /// Columns (blank as '.') that must be among git's own records, separated by blanks; "-" when
    /// there must be none: a script that did not make what the row is named for is found out.
    std::string_view shows;
    /// Run by bash in the sandbox's work(); stops at the first failure. The functions that it may
    /// call are described beside their definition.
    std::string_view script;
    /// The folder to ask about, relative to work().
    std::string_view at = ".";
    /// Paths that are `.M` although git calls them clean: the filter that would tell is named by
    /// the repository alone and is not run. Separated by blanks.
    std::string_view unverified = "";
};

const std::vector<Scenario>& scenarios();

/// Runs a scenario's script, or any other that wants the same functions; throws with its words.
void runScript(const GitSandbox& sandbox, std::string_view script);

/// Runs the program in the sandbox's root with these variables set beside the sandbox's own.
ProcessResult runQuendo(const GitSandbox& sandbox, const std::vector<std::string>& arguments,
                        const std::map<std::string, std::string>& variables = {});

/// Runs a script in work() where q runs the program.
ProcessResult shell(const GitSandbox& sandbox, const std::string& script);

/// Expects that the program refuses each command in one line that holds these words.
void expectRefusals(const GitSandbox& sandbox,
                    const std::vector<std::pair<std::string, std::string>>& rows);

/// A PATH whose git is this shell script; $REAL is the true one.
std::map<std::string, std::string> withGit(const GitSandbox& sandbox, const std::string& script);

/// Two columns, blank as '.', and the path.
struct Record {
    std::string columns;
    std::string path;
    auto operator<=>(const Record&) const = default;
};
using Records = std::vector<Record>;

/// The records that the program or git printed; throws for what is none.
Records recordsIn(std::string_view output, char end = '\0', std::size_t columns = 2);

/// "XY path" of each record that the program prints about work(), ignored ones too; sorted.
std::vector<std::string> recordsOfQuendo(const GitSandbox& sandbox);

} // namespace quendo::test
