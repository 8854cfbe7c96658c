#include "tests/support/GitSandbox.h"

#include <cstdlib>
#include <stdexcept>

namespace quendo::test {

namespace fs = std::filesystem;

GitSandbox::GitSandbox() {
    for (const char* name : {"GIT_DIR", "GIT_WORK_TREE", "GIT_INDEX_FILE"})
        ::unsetenv(name);
    fs::create_directories(home());
    fs::create_directories(work());
    writeFile(home() / ".gitconfig", "[user]\n\tname = Ada Tester\n\temail = ada@example.org\n"
                                     "[init]\n\tdefaultBranch = main\n"
                                     "[protocol \"file\"]\n\tallow = always\n"
                                     "[advice]\n\tdetachedHead = false\n"
                                     "[gc]\n\tautoDetach = false\n");
    m_environment = {
        {"HOME", home().native()},    {"XDG_CONFIG_HOME", (home() / ".config").native()},
        {"GIT_CONFIG_NOSYSTEM", "1"}, {"GIT_CONFIG_GLOBAL", (home() / ".gitconfig").native()},
        {"GIT_TERMINAL_PROMPT", "0"}, {"LC_ALL", "C"},
    };
}

GitSandbox::~GitSandbox() {
    for (const auto& [name, value] : m_saved)
        value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
}

void GitSandbox::enterEnvironment() {
    for (const auto& [name, value] : m_environment) {
        const char* before = std::getenv(name.c_str());
        m_saved.try_emplace(name, before ? std::optional<std::string>(before) : std::nullopt);
        ::setenv(name.c_str(), value.c_str(), 1);
    }
}

ProcessResult GitSandbox::run(const std::vector<std::string>& command, const fs::path& folder,
                              std::map<std::string, std::string> variables) const {
    variables.insert(m_environment.begin(), m_environment.end());
    return runProcess(command, {folder, std::move(variables)});
}

ProcessResult GitSandbox::tryGit(const std::vector<std::string>& arguments,
                                 const fs::path& folder) const {
    std::vector<std::string> command{"git"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command, folder.empty() ? work() : folder);
}

std::string GitSandbox::git(const std::vector<std::string>& arguments,
                            const fs::path& folder) const {
    auto result = tryGit(arguments, folder);
    if (result.exitCode != 0) {
        std::string words = "git";
        for (const auto& argument : arguments)
            words += " " + argument;
        throw std::runtime_error(words + ": " + result.errors + result.output);
    }
    return result.output;
}

void GitSandbox::init(const std::vector<std::string>& options, const fs::path& folder) const {
    std::vector<std::string> arguments{"init", "-q", "-b", "main"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    if (!folder.empty())
        fs::create_directories(folder);
    git(arguments, folder);
}

void GitSandbox::commitAll(const std::string& message, const fs::path& folder) const {
    git({"add", "-A"}, folder);
    git({"commit", "-q", "--allow-empty", "-m", message}, folder);
}

} // namespace quendo::test
