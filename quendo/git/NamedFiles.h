#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class Repository;

/// A file that git would open and that is not fit for that.
struct UnfitFile {
    std::string setting; ///< whose value names it, in lower case
    std::string file;    ///< absolute, native
    std::string why;     ///< "is a device"
};

/// What lookAtNamedFiles() has found.
struct NamedFiles {
    /// What core.excludesFile and core.attributesFile name, or what stands at their default places,
    /// and is unfit. A setting may stand where a condition keeps git from reading it, so git need
    /// not be about to open it.
    std::vector<UnfitFile> unfit;
    /// The names and contents of all configuration files. While this stays the same, so do the
    /// answers of `git config`. Nothing where they depend on more than that, or there is too much.
    std::optional<std::string> configuration;
};

/// Looks at the files that git reads because of its configuration, before git opens them: the
/// configuration files themselves, those that they include, and those that core.excludesFile and
/// core.attributesFile name. Opens nothing but regular files. Runs no git.
///
/// @throws exception::DamagedRepositoryError, or ToolError where the user's own configuration is at
///         fault, naming the configuration file that is unfit or includes too much
NamedFiles lookAtNamedFiles(const Repository& repository);

/// The same for what `git config` printed for FilterDrivers::question() in `folder`.
/// @return the one of the two settings that is unfit, if any
std::optional<UnfitFile> findUnfitNamed(std::string_view configuration, const std::string& folder);

/// Why git must not open a file: "is a FIFO", "is 100 GB large". Nothing when it may, or when there
/// is none. /dev/null is fit.
std::optional<std::string> whyUnfit(const std::string& file);

/// Where git looks when `setting` (one of the two) is not set.
std::string defaultFileOf(const std::string& setting);

/// The files of the user's and the system's configuration, whether they exist or not.
std::vector<std::string> configurationOfUser();

} // namespace quendo::git
