#pragma once

#include "quendo/git/ChildProcess.h"
#include "quendo/git/GitTool.h"
#include "quendo/git/SuspendedFilters.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

class Cancellation;
class KnownConfiguration;
class LazyFetch;
class Repository;

/// One run of git.
struct GitRun {
    std::vector<std::string> arguments;
    std::string input = {};              ///< for standard input
    std::string indexFile = {};          ///< in place of the repository's own, if set
    std::string folder = {};             ///< where; the repository's own folder when empty
    bool asSubmodule = false;            ///< as git itself looks into one: whoever owns it
    bool keepMetadata = false;           ///< also where the repository's own index is a plain one
    int outputFile = -1;                 ///< standard output goes there, if set
    bool literalPathspecs = true;        ///< check-ignore does not stand it
    std::size_t errorsKept = 64U << 10U; ///< bytes of its standard error in the result
    bool holdsContent = false;           ///< in memory, as a whole: it may use more of that
    std::uint64_t contentSize = 0;       ///< bytes of content that it is to print, if it is known
    bool limitOutput = true; ///< it lists what the index and the folders hold, and nothing else
    std::function<void(std::string_view)> consume = {}; ///< takes what it prints, in pieces
};

/// Runs git for one call of the adapter, reading only. Threads: used by one.
class GitRunner {
public:
    /// @param eachRound runs about every 100 ms while git runs; must not throw
    /// @param filters the user's that hung here before; null when none are remembered
    /// @param known what git answered about its configuration; null when that is not kept
    GitRunner(GitTool& tool, const Repository& repository, const Cancellation& cancellation,
              std::function<void()> eachRound = {},
              std::shared_ptr<SuspendedFilters> filters = nullptr,
              std::shared_ptr<KnownConfiguration> known = nullptr);

    const Repository& repository() const noexcept { return m_repository; }
    const Cancellation& cancellation() const noexcept { return *m_cancellation; }
    const GitOptions& options() const noexcept { return m_tool.options(); }

    /// From now on nothing stops it: for what has to be set right after a cancellation.
    void ignoreCancellation();

    /// Settings for every run from now on.
    void setOverrides(std::vector<ConfigOverride> overrides) { m_overrides = std::move(overrides); }

    /// From now on git may be silent for longer: it runs these programs of the user's, if there are
    /// any.
    void bePatient(const SuspendedFilters::Drivers& users) { m_usersFilters = users; }

    /// Those of the user's filters that are not to be run now.
    std::set<std::string> suspended(const SuspendedFilters::Drivers& users) const;

    /// How a run ended at a bound, or hung, for a reason that lies in the repository.
    enum class Trouble { None, OverBound, Hung };
    Trouble trouble() const noexcept { return m_trouble; }
    /// The file that may be the cause, absolute; empty if none is known.
    const std::string& suspect() const noexcept { return m_suspect; }

    /// From now on git may ask a server for what a partial clone lacks.
    void allowFetching(std::shared_ptr<LazyFetch> fetch) { m_fetch = std::move(fetch); }

    /// Runs all of `runs` at the same time and waits for them.
    /// @return how each ended, whatever its exit code
    /// @throws exception::ToolError, DamagedRepositoryError when one hangs or uses more than it
    /// may,
    ///         or would open something that is no file; OperationCancelledError
    std::vector<ChildResult> run(const std::vector<GitRun>& runs);

    /// Runs git and returns what it printed.
    /// @param accepted an exit code besides 0 that is an answer and no failure
    /// @throws as run(), and what throwGitFailure() makes of another exit code
    std::string read(GitRun run, int accepted = 0);

    /// As read() with these arguments, of `git config`, which are the same each time; without git
    /// while the answer is known.
    /// @param use takes the answer; one for which it throws is not kept
    void readConfiguration(std::vector<std::string> arguments, int accepted,
                           const std::function<void(std::string_view)>& use);

private:
    void checkNamedFiles();
    std::chrono::milliseconds processorLimit(const GitRun& run, std::uint64_t indexSize);
    std::uint64_t memoryLimit(const GitRun& run, std::uint64_t indexSize) const;
    std::chrono::milliseconds timeToCompareFiles();
    [[noreturn]] void failOverProcessorBound(const std::string& command,
                                             std::chrono::milliseconds bound,
                                             const std::vector<std::string>& running);
    std::set<std::string> suspendFilters(const std::vector<std::string>& running);

    GitTool& m_tool;
    const Repository& m_repository;
    const Cancellation* m_cancellation;
    std::shared_ptr<const Cancellation> m_never; ///< in its place, once it is ignored
    std::function<void()> m_eachRound;
    std::vector<ConfigOverride> m_overrides;
    bool m_hasCheckedNamedFiles = false;
    std::vector<ConfigOverride> m_replacedFiles; ///< settings that name what git must not open
    SuspendedFilters::Drivers m_usersFilters;    ///< that git may run
    const std::shared_ptr<SuspendedFilters> m_suspendedFilters; ///< may be null
    const std::shared_ptr<KnownConfiguration> m_known;          ///< may be null
    std::optional<std::string> m_configuration;   ///< before the first run (NamedFiles)
    std::chrono::microseconds m_processorTime{0}; ///< of all runs so far
    Trouble m_trouble = Trouble::None;
    std::string m_suspect;
    std::optional<std::uint64_t> m_sizeOfFiles; ///< of all tracked ones, once it is known
    std::shared_ptr<LazyFetch> m_fetch;         ///< null while nothing is fetched
};

/// Calls `consume` with each piece of `text` that ends with a NUL, without it; keeps the rest.
/// For output that comes in pieces.
class NulSplitter {
public:
    /// @param command for the error when one piece outgrows every sane size
    explicit NulSplitter(std::string_view command) : m_command(command) {}

    template <class Consumer>
    void feed(std::string_view text, Consumer&& consume) {
        while (true) {
            const auto end = text.find('\0');
            if (end == std::string_view::npos) {
                keep(text);
                return;
            }
            if (m_rest.empty()) {
                consume(text.substr(0, end));
            } else {
                keep(text.substr(0, end));
                consume(std::string_view(m_rest));
                m_rest.clear();
            }
            text.remove_prefix(end + 1);
        }
    }

    /// What came after the last NUL; empty at the end of whole output.
    const std::string& rest() const noexcept { return m_rest; }

private:
    void keep(std::string_view text);

    std::string m_command;
    std::string m_rest;
};

} // namespace quendo::git
