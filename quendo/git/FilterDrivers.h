#pragma once

#include "quendo/git/GitTool.h"

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class GitRunner;

/// The content filters that a repository names itself. Reading must not run them: whoever hands
/// somebody a repository would run programs in their IDE. Filters that the user's or the system's
/// configuration names are theirs and run, also where the repository redefines them.
struct FilterDrivers {
    /// Settings that put each of them back to what the user's configuration says, or to nothing.
    std::vector<ConfigOverride> overrides;
    /// The names of those that can now not turn a file's content into what the repository holds…
    std::set<std::string> withoutClean;
    /// …and of those that cannot turn it back.
    std::set<std::string> withoutSmudge;

    /// Those of the user's configuration, which may take their time: by name, what is run.
    std::map<std::string, std::string> ofUser;

    /// Puts these of the user's aside as well. Does not go together with add() of drivers in which
    /// they are not.
    void suspend(const std::set<std::string>& names);

    void add(const FilterDrivers& other);

    /// From `git config -z --show-scope --get-regexp '^filter\.'`.
    static FilterDrivers parse(std::string_view output);

    /// Asks git about the runner's own repository.
    static FilterDrivers read(GitRunner& git);

    /// @throws exception::DamagedRepositoryError when there are more than can be put aside
    void checkSize() const;

    /// The question whose answer parse() takes; findUnfitNamed() takes it as well.
    static std::vector<std::string> question();
};

} // namespace quendo::git
