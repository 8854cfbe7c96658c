#pragma once

#include "tests/support/Process.h"
#include "tests/support/TemporaryFolder.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quendo::test {

/// A folder in which real git repositories are made, cut off from the configuration of whoever
/// runs the tests: its own HOME, no system configuration, a fixed author.
class GitSandbox {
public:
    GitSandbox();
    ~GitSandbox();

    std::filesystem::path root() const { return m_folder.path(); }
    std::filesystem::path home() const { return root() / "home"; }
    std::filesystem::path work() const { return root() / "work"; }

    /// Variables that isolate git; also what a quendo started from a test gets.
    const std::map<std::string, std::string>& environment() const { return m_environment; }

    /// Runs any program in `folder`, with these variables beside the isolating ones.
    ProcessResult run(const std::vector<std::string>& command, const std::filesystem::path& folder,
                      std::map<std::string, std::string> variables = {}) const;

    /// Runs git in `folder` (work() by default) and gives its standard output; throws with git's
    /// words when it fails.
    std::string git(const std::vector<std::string>& arguments,
                    const std::filesystem::path& folder = {}) const;
    /// The same, whatever git answers.
    ProcessResult tryGit(const std::vector<std::string>& arguments,
                         const std::filesystem::path& folder = {}) const;

    /// `git init -b main` in work(), or in `folder`, which it makes.
    void init(const std::vector<std::string>& options = {},
              const std::filesystem::path& folder = {}) const;
    /// Stages everything and commits it.
    void commitAll(const std::string& message, const std::filesystem::path& folder = {}) const;

    /// Puts the isolating variables into this process as well, for tests that call the adapter
    /// directly; undone when the sandbox goes. One sandbox at a time may do so.
    void enterEnvironment();

private:
    TemporaryFolder m_folder;
    std::map<std::string, std::string> m_environment;
    std::map<std::string, std::optional<std::string>> m_saved;
};

} // namespace quendo::test
