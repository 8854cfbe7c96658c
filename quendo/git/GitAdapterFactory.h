#pragma once

#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/platform/Export.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace quendo::git {

class GitTool;

/// How the user's git is run.
struct GitOptions {
    /// The git executable: a name that is looked up in PATH (folders given there as relative paths
    /// are passed over), or an absolute path.
    std::string executable = "git";

    /// A git that neither uses the processor nor prints anything for this long is ended and
    /// reported as hanging.
    std::chrono::milliseconds stallLimit{20'000};

    /// The same for the question for its version, which touches no disk of a network. It may use as
    /// much of the processor as well.
    std::chrono::milliseconds versionLimit{5'000};

    /// The same for a git that changes something: it waits for hooks, signing agents and servers.
    std::chrono::milliseconds actionStallLimit{600'000};

    /// The processor time that a git which only reads may use, with all that it starts; then it is
    /// ended, and the error says so. Each byte of the index adds 10 µs, so that 100,000 files
    /// (about 10 MB) add 100 s. Where files are compared, each byte of the tracked ones adds 10 ns,
    /// so that 10 GB add 100 s, and an hour at the most; content that is to be printed adds 50 ns a
    /// byte. A sixth of it for reading the configuration; ten times as much while something is
    /// fetched. All gits of one call together may use three times as much.
    std::chrono::milliseconds processorLimit{60'000};

    /// The private memory in bytes that each process of a git which only reads may use. Each byte
    /// of the index adds 20.
    std::uint64_t memoryLimit = std::uint64_t{1} << 30;

    /// The same where content passes a filter or the conversion of line ends, which git does in
    /// memory as a whole, and while something is fetched; half of the machine's memory if that is
    /// less. Other content is exported in pieces.
    std::uint64_t contentMemoryLimit = std::uint64_t{4} << 30;

    /// What a git that lists files may print, in bytes. Each byte of the index adds 40.
    std::uint64_t outputLimit = std::uint64_t{128} << 20;

    /// How long reading does without a filter of the user's that hung or used more than it may.
    /// Doubles each time that it does so again.
    std::chrono::milliseconds filterPause{600'000};

    /// How long an operation waits for another git that holds the index.
    std::chrono::milliseconds lockLimit{10'000};
};

/// Git working copies, through the user's own git. Nothing that a repository names is run while
/// reading. Any thread.
class QUENDO_API GitAdapterFactory : public CMAdapterFactory {
public:
    explicit GitAdapterFactory(GitOptions options = {});
    ~GitAdapterFactory() override;

    std::unique_ptr<CMAdapter>
    createAdapter(const Path& folder, std::shared_ptr<CMApplicationInteractor> interactor) override;
    UString getSystemName() const override;
    bool canManage(const Path& folder) override;
    UString getMetadataName() const override;
    UString getProblem() const override;
    std::string getID() const override;

private:
    std::shared_ptr<GitTool> m_tool;
};

} // namespace quendo::git
