#pragma once

#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/platform/Export.h"

#include <chrono>
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

    /// The same for the question for its version, which touches no disk of a network.
    std::chrono::milliseconds versionLimit{5'000};

    /// The same for a git that changes something: it waits for hooks, signing agents and servers.
    std::chrono::milliseconds actionStallLimit{600'000};

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
