#pragma once

#include "quendo/adapter/BranchInformation.h"
#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/IgnoreRuleEditor.h"
#include "quendo/adapter/RevisionContent.h"
#include "quendo/adapter/RevisionHistory.h"
#include "quendo/adapter/StateDependencies.h"
#include "quendo/git/FailedQueries.h"
#include "quendo/git/GitDependencies.h"
#include "quendo/git/KnownConfiguration.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SuspendedFilters.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>

namespace quendo::git {

class GitRunner;
class GitTool;

/// One Git working copy. Every call runs the user's git and holds nothing between calls but where
/// the repository's parts lie, so any operation may be called from any thread beside any other;
/// those that change something go one after the other.
class GitAdapter final : public CMAdapter,
                         public BranchInformation,
                         public IgnoreRuleEditor,
                         public RevisionContent,
                         public RevisionHistory,
                         public StateDependencies {
public:
    GitAdapter(std::shared_ptr<GitTool> tool, Repository repository,
               std::shared_ptr<CMApplicationInteractor> interactor);

    UserInfo getUserInfo() const override;
    MetadataFolder getMetadataFolder() const override;
    std::vector<UString> getMetadataFiles() const override;
    bool isFeatureSupported(SupportedFeature feature) const override;
    void checkin(const Path& file, const UString& message) const override;
    void checkin(const std::vector<Path>& files, const UString& message) const override;
    void addFiles(const std::vector<Path>& files) const override;
    void removeFiles(const std::vector<Path>& files) const override;
    void moveFile(const Path& source, const Path& destination) const override;
    void uncheckout(const std::vector<Path>& files) const override;
    void discardChanges() const override;
    void checkout(const std::vector<Path>& files) const override;
    void resolveConflict(const Path& file) const override;
    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override;
    std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const override;
    std::vector<std::unique_ptr<Revision>>
    listRevisions(const Path& file,
                  std::optional<std::reference_wrapper<const Revision>> from) const override;
    std::unique_ptr<Revision> findRevision(const Path& file, const UString& id) const override;
    std::unique_ptr<Revision> getCurrentRevision(const Path& file) const override;
    std::vector<std::unique_ptr<Revision>>
    getParentRevisions(const Revision& revision) const override;
    void exportRevision(const Path& file, const Revision& revision,
                        const Path& target) const override;
    ConflictRevisions getConflictRevisions(const Path& file) const override;
    Path getRootFolder() const override;
    std::vector<UString> getForbiddenFileNames() const override;
    UString getRepositorySpecifier(const Path& path) const override;
    UString getInitialCheckinMessage() const override;
    std::any getSubsystem(const std::type_info& type) override;
    void setCredentialProvider(std::weak_ptr<CredentialProvider> provider) override;
    void ignoreFile(const Path& file) override;

    std::vector<Path> ignoreFiles(const std::vector<Path>& files) override;
    BranchState getBranchState() const override;
    std::optional<std::string> getContent(const Path& file, const UString& revision,
                                          std::size_t limit) const override;
    std::optional<std::string> getStagedContent(const Path& file, std::size_t limit) const override;
    void
    readRevisions(const Path& path, const RevisionQuery& query,
                  const std::function<bool(std::unique_ptr<Revision>)>& receive) const override;
    std::vector<StateDependency>
    getStateDependencies(const std::vector<Path>& nested,
                         const std::vector<Path>& changed) const override;

private:
    std::shared_ptr<const Repository> repository() const;
    template <class Work>
    auto withGit(Work&& work) const;
    template <class Work>
    auto mayFetch(GitRunner& git, Work&& work) const;
    template <class Work>
    auto ask(GitRunner& git, FailedQueries::Query query, Work&& work) const;
    template <class Work>
    auto withProgress(const UString& message, Work&& work) const;
    void report(const UString& message, double fraction) const noexcept;
    template <class Work>
    void act(const UString& message, Work&& work) const;

    const std::shared_ptr<GitTool> m_tool;
    const std::shared_ptr<CMApplicationInteractor> m_interactor;
    const Path m_root;
    mutable std::mutex m_lock;
    mutable std::shared_ptr<const Repository> m_repository; ///< guarded by m_lock
    mutable bool m_isActing = false; ///< an operation changes something; guarded by m_lock
    mutable std::condition_variable m_hasActed;
    std::weak_ptr<CredentialProvider> m_credentialProvider; ///< guarded by m_lock
    const std::shared_ptr<SuspendedFilters> m_suspendedFilters;
    const std::shared_ptr<KnownConfiguration> m_knownConfiguration;
    mutable FailedQueries m_failedQueries;
    mutable std::mutex m_dependenciesLock;
    mutable GitDependencies m_dependencies; ///< guarded by m_dependenciesLock
};

/// `url` without what may be a secret: the password of any, the user too where a token often stands
/// in its place (http, https, ftp), and a query. For people, not to connect with.
std::string withoutSecrets(const std::string& url);

/// The same for every URL in a text.
std::string withoutSecretsInText(std::string text);

/// How far git is by its own words ("Updating files:  45% (9/20)"), or
/// ProgressIndicator::unknown.
double fractionIn(std::string_view line);

} // namespace quendo::git
