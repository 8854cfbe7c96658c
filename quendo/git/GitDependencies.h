#pragma once

#include "quendo/adapter/MetadataFolder.h"
#include "quendo/adapter/StateDependencies.h"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quendo::git {

class GitRunner;

/// Finds what the states of one Git working copy depend on beside its files and its metadata
/// folder: submodules, nested repositories, files that the configuration names, and metadata that
/// were moved. Keeps what it read until the files that it read it from change.
///
/// Threads: one at a time.
class GitDependencies {
public:
    /// @param metadata what is followed already (GitAdapter::getMetadataFolder at first)
    explicit GitDependencies(MetadataFolder metadata) : m_metadata(std::move(metadata)) {}

    /// As StateDependencies::getStateDependencies().
    std::vector<StateDependency> find(GitRunner& git, const std::vector<Path>& nested,
                                      const std::vector<Path>& changed);

private:
    /// A file's path and what identifies its content.
    using Stamp = std::pair<std::string, std::vector<long long>>;
    enum class Depth { Marker, Metadata, All };
    /// The folders of a submodule that git does not look into.
    struct Ignored {
        std::vector<Stamp> stamps; ///< of files in metadata that they follow from
        std::set<std::string> folders;
    };

    static Stamp stampOf(const std::string& file);
    static bool areCurrent(const std::vector<Stamp>& stamps);
    void readConfiguration(GitRunner& git);
    void addConfiguration(GitRunner& git, std::vector<StateDependency>& found) const;
    void addMetadata(GitRunner& git, const std::string& folder, const std::string& gitDir,
                     std::vector<StateDependency>& found) const;
    void addNested(GitRunner& git, const Path& folder, const std::string& relative, bool isLink,
                   std::vector<StateDependency>& found);
    void readLinks(GitRunner& git, const std::vector<std::string>& nested);
    void readModules(GitRunner& git);
    void findIgnored(GitRunner& git, const std::string& folder, const std::string& prefix,
                     int& budget, Ignored& found) const;

    const MetadataFolder m_metadata;

    std::vector<Stamp> m_configStamps; ///< of what the following was read from
    std::set<std::string> m_configFiles;
    bool m_namesUserFolder = false; ///< a file as "~user/…", whose place is not known
    std::map<std::string, std::string> m_ignoreByName; ///< submodule.NAME.ignore
    std::string m_ignoreByDefault;                     ///< diff.ignoreSubmodules

    Stamp m_modulesStamp;                                                 ///< .gitmodules
    std::map<std::string, std::pair<std::string, std::string>> m_modules; ///< path: name, ignore

    std::pair<Stamp, std::vector<std::string>> m_linksKey; ///< the index, and what was asked for
    std::set<std::string> m_links;                         ///< submodules among `nested`

    std::map<std::string, Ignored> m_ignored; ///< by submodule
};

} // namespace quendo::git
