#include "quendo/git/GitAdapterFactory.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/GitAdapter.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitTool.h"

namespace quendo::git {

GitAdapterFactory::GitAdapterFactory(GitOptions options)
    : m_tool(std::make_shared<GitTool>(std::move(options))) {}

GitAdapterFactory::~GitAdapterFactory() = default;

std::unique_ptr<CMAdapter>
GitAdapterFactory::createAdapter(const Path& folder,
                                 std::shared_ptr<CMApplicationInteractor> interactor) {
    auto repository = Repository::open(folder);
    if (repository.needsGitsOpinion()) {
        repository.checkMetadataFiles();
        const Cancellation cancellation(interactor.get());
        GitRunner(*m_tool, repository, cancellation)
            .read({.arguments = {"rev-parse", "--git-dir"}});
    }
    return std::make_unique<GitAdapter>(m_tool, std::move(repository), std::move(interactor));
}

UString GitAdapterFactory::getSystemName() const {
    return u"Git";
}

bool GitAdapterFactory::canManage(const Path& folder) {
    return Repository::isAt(folder);
}

UString GitAdapterFactory::getMetadataName() const {
    return u".git";
}

UString GitAdapterFactory::getProblem() const {
    try {
        m_tool->executable();
        return {};
    } catch (const exception::SourceControlException& error) {
        return toUString(error.what());
    }
}

std::string GitAdapterFactory::getID() const {
    return "QuendoGitAdapter";
}

} // namespace quendo::git
