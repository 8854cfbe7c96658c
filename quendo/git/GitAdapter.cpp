#include "quendo/git/GitAdapter.h"

#include "quendo/adapter/QueryOrigin.h"
#include "quendo/adapter/SubsystemType.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/GitActions.h"
#include "quendo/git/GitActor.h"
#include "quendo/git/GitBranch.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitHistory.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitStatus.h"
#include "quendo/git/GitText.h"
#include "quendo/git/LazyFetch.h"
#include "quendo/git/MetadataFilter.h"
#include "quendo/git/SmallFile.h"
#include "quendo/platform/ExecutorTurn.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/OwnWrites.h"
#include "quendo/platform/ScopeGuard.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <exception>
#include <string_view>
#include <type_traits>

namespace quendo::git {
namespace {

// What `git commit` would drop as well: lines that start with the comment character.
std::string withoutComments(const std::string& text, const std::string& commentStart) {
    std::string kept;
    for (std::size_t start = 0; start < text.size();) {
        const auto end = std::min(text.find('\n', start), text.size());
        const std::string_view line(text.data() + start, end - start);
        if (line.starts_with(commentStart + " ------------------------ >8"))
            break;
        if (!line.starts_with(commentStart))
            kept.append(line).push_back('\n');
        start = end + 1;
    }
    return withoutLineEnds(kept);
}

/// The question for the states of these.
FailedQueries::Query statesOf(const Repository& repository, const std::vector<Path>& paths) {
    FailedQueries::Query query{"states"};
    for (const auto& path : paths) {
        auto relative = repository.relative(path);
        if (relative && relative->empty())
            return {"states"};
        if (relative)
            query.paths.push_back(std::move(*relative));
    }
    if (query.paths.empty())
        query.paths.emplace_back("."); // none of the repository's: this is no question for all
    return query;
}

} // namespace

GitAdapter::GitAdapter(std::shared_ptr<GitTool> tool, Repository repository,
                       std::shared_ptr<CMApplicationInteractor> interactor)
    : m_tool(std::move(tool)), m_interactor(std::move(interactor)), m_root(repository.rootPath()),
      m_repository(std::make_shared<const Repository>(std::move(repository))),
      m_suspendedFilters(std::make_shared<SuspendedFilters>(m_tool->options().filterPause)),
      m_knownConfiguration(std::make_shared<KnownConfiguration>()),
      m_dependencies(GitAdapter::getMetadataFolder()) {}

// git finds the metadata anew at each start, so they may have moved. The file system may take its
// time to say so, or never answer: it is not asked under the lock.
std::shared_ptr<const Repository> GitAdapter::repository() const {
    const auto known = [&] {
        const std::lock_guard lock(m_lock);
        return m_repository;
    }();
    if (known->isCurrent())
        return known;
    try {
        auto now =
            std::make_shared<const Repository>(Repository::open(Path::fromNative(known->folder())));
        if (now->root() != known->root())
            return known;
        const std::lock_guard lock(m_lock);
        if (m_repository == known)
            m_repository = now;
        return now;
    } catch (const exception::SourceControlException&) {
        return known; // The error of the git that is run next says what is wrong.
    }
}

template <class Work>
auto GitAdapter::withGit(Work&& work) const {
    const Cancellation cancellation(m_interactor.get());
    const auto repository = this->repository();
    GitRunner git(*m_tool, *repository, cancellation, {}, m_suspendedFilters, m_knownConfiguration);
    return work(git);
}

// A query that a cache repeats by itself must not run into the same bound each time.
template <class Work>
auto GitAdapter::ask(GitRunner& git, FailedQueries::Query query, Work&& work) const {
    const auto origin = QueryOrigin::current();
    if (origin != nullptr && origin->urgency() == QueryUrgency::Background)
        m_failedQueries.throwIfKnown(query);
    const auto start = FailedQueries::Clock::now();
    auto stamps = FailedQueries::stampsOf(git.repository());
    try {
        auto answer = work(git);
        m_failedQueries.forget(query);
        return answer;
    } catch (const exception::SourceControlException& error) {
        if (git.trouble() != GitRunner::Trouble::None)
            m_failedQueries.add(std::move(query),
                                {.error = error,
                                 .stamps = std::move(stamps),
                                 .cost = std::chrono::ceil<std::chrono::milliseconds>(
                                     FailedQueries::Clock::now() - start),
                                 .hung = git.trouble() == GitRunner::Trouble::Hung,
                                 .suspect = git.suspect()});
        throw;
    }
}

// In a partial clone, what is missing is fetched when it turns out that it is: the user asked for
// it. All others are spared the look at the configuration.
template <class Work>
auto GitAdapter::mayFetch(GitRunner& git, Work&& work) const {
    try {
        return work(git);
    } catch (const exception::OperationCancelledError&) {
        throw;
    } catch (const exception::SourceControlException&) {
        auto fetch = LazyFetch::of(git, [&] {
            const std::lock_guard lock(m_lock);
            return m_credentialProvider.lock();
        }());
        if (!fetch)
            throw;
        git.allowFetching(std::move(fetch));
    }
    const UString message = u"Fetching what this clone lacks";
    report(message, ProgressIndicator::unknown);
    if constexpr (std::is_void_v<decltype(work(git))>) {
        work(git);
        report(message, 1);
    } else {
        auto result = work(git);
        report(message, 1);
        return result;
    }
}

// A listener's failure is its own: the work does not depend on it.
void GitAdapter::report(const UString& message, double fraction) const noexcept {
    if (!m_interactor)
        return;
    try {
        m_interactor->getProgressIndicator().report(message, fraction);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

template <class Work>
auto GitAdapter::withProgress(const UString& message, Work&& work) const {
    const Cancellation cancellation(m_interactor.get());
    // git reports no progress of a query.
    const auto goOn = [&] { report(message, ProgressIndicator::unknown); };
    const auto repository = this->repository();
    GitRunner git(*m_tool, *repository, cancellation, goOn, m_suspendedFilters,
                  m_knownConfiguration);
    goOn();
    auto result = work(git);
    report(message, 1);
    return result;
}

template <class Work>
void GitAdapter::act(const UString& message, Work&& work) const {
    // It waits and looks before it writes; what writes says so.
    if (const auto writes = OwnWrites::current())
        writes->refine();
    const Cancellation cancellation(m_interactor.get());
    constexpr std::chrono::milliseconds lookAtCancellation{50};
    {
        std::optional<OutsideExecutor> outside; // ends without the lock
        std::unique_lock lock(m_lock);
        while (m_isActing) {
            if (!outside)
                outside.emplace();
            m_hasActed.wait_for(lock, lookAtCancellation);
            cancellation.throwIfRequested();
        }
        m_isActing = true;
    }
    const scope_guard end([this] {
        const std::lock_guard lock(m_lock);
        m_isActing = false;
        m_hasActed.notify_one();
    });
    const auto repository = this->repository();
    repository->checkMetadataFiles();
    const auto goOn = [&] { report(message, ProgressIndicator::unknown); };
    GitRunner reader(*m_tool, *repository, cancellation, goOn, m_suspendedFilters,
                     m_knownConfiguration);
    GitActor actor(
        *m_tool, *repository, cancellation,
        [&](std::string_view line) { report(toUString(line), fractionIn(line)); },
        [&] {
            const std::lock_guard lock(m_lock);
            return m_credentialProvider.lock();
        }());
    goOn();
    GitActions actions(reader, actor);
    work(actions);
    report(message, 1);
}

UserInfo GitAdapter::getUserInfo() const {
    return withGit([](GitRunner& git) {
        UserInfo info;
        constexpr int noneFound = 1;
        NulSplitter("config").feed(
            git.read(
                {.arguments = {"config", "-z", "--get-regexp", "^(user|author)\\.(name|email)$"}},
                noneFound),
            [&, hasAuthorName = false, hasAuthorEmail = false](std::string_view record) mutable {
                const auto keyEnd = std::min(record.find('\n'), record.size());
                const auto key = record.substr(0, keyEnd);
                const auto value = toUString(record.substr(std::min(keyEnd + 1, record.size())));
                if (key == "author.name" || (key == "user.name" && !hasAuthorName))
                    info.name = value;
                if (key == "author.email" || (key == "user.email" && !hasAuthorEmail))
                    info.email = value;
                hasAuthorName |= key == "author.name";
                hasAuthorEmail |= key == "author.email";
            });
        return info;
    });
}

MetadataFolder GitAdapter::getMetadataFolder() const {
    const auto repository = this->repository();
    return {Path::fromNative(repository->commonDir()),
            makeMetadataFilter(repository->commonDir(), repository->gitDir())};
}

std::vector<UString> GitAdapter::getMetadataFiles() const {
    return {u".gitignore", u".gitattributes", u".gitmodules"};
}

bool GitAdapter::isFeatureSupported(SupportedFeature feature) const {
    switch (feature) {
    case SupportedFeature::Checkin:
    case SupportedFeature::AddFiles:
    case SupportedFeature::RemoveFiles:
    case SupportedFeature::MoveFile:
    case SupportedFeature::Uncheckout:
    case SupportedFeature::DiscardChanges:
    case SupportedFeature::Checkout:
    case SupportedFeature::ResolveConflict:
    case SupportedFeature::IgnoreFile:
    case SupportedFeature::ListRevisions:
    case SupportedFeature::ExportRevision:
    case SupportedFeature::ConflictRevisions:
    case SupportedFeature::Credentials:
        return true;
    }
    return false;
}

void GitAdapter::checkin(const Path& file, const UString& message) const {
    checkin(std::vector<Path>{file}, message);
}

void GitAdapter::checkin(const std::vector<Path>& files, const UString& message) const {
    act(u"Checking in", [&](GitActions& git) { git.checkin(files, message); });
}

void GitAdapter::addFiles(const std::vector<Path>& files) const {
    act(u"Adding files", [&](GitActions& git) { git.add(files); });
}

void GitAdapter::removeFiles(const std::vector<Path>& files) const {
    act(u"Removing files", [&](GitActions& git) { git.remove(files); });
}

void GitAdapter::moveFile(const Path& source, const Path& destination) const {
    act(u"Moving", [&](GitActions& git) { git.move(source, destination); });
}

void GitAdapter::uncheckout(const std::vector<Path>& files) const {
    act(u"Reverting files", [&](GitActions& git) { git.revert(files); });
}

void GitAdapter::discardChanges() const {
    act(u"Discarding changes", [&](GitActions& git) { git.discard(); });
}

void GitAdapter::checkout(const std::vector<Path>& files) const {
    act(u"Making files writable", [&](GitActions& git) { git.makeWritable(files); });
}

void GitAdapter::resolveConflict(const Path& file) const {
    act(u"Resolving a conflict", [&](GitActions& git) { git.resolve(file); });
}

void GitAdapter::ignoreFile(const Path& file) {
    ignoreFiles({file});
}

std::vector<Path> GitAdapter::ignoreFiles(const std::vector<Path>& files) {
    std::vector<Path> rules;
    act(u"Ignoring files", [&](GitActions& git) { rules = git.ignore(files); });
    return rules;
}

std::map<Path, FileState> GitAdapter::getStatus(const std::vector<Path>& files) const {
    if (files.empty())
        return {};
    return withProgress(u"Reading file states", [&](GitRunner& runner) {
        return ask(runner, statesOf(runner.repository(), files),
                   [&](GitRunner& git) { return GitStatus(git).ofPaths(files); });
    });
}

std::map<Path, FileState> GitAdapter::getStatus(const Path& path, bool includeUntracked) const {
    return withProgress(u"Reading file states", [&](GitRunner& runner) {
        return ask(runner, statesOf(runner.repository(), {path}),
                   [&](GitRunner& git) { return GitStatus(git).ofFolder(path, includeUntracked); });
    });
}

std::vector<std::unique_ptr<Revision>>
GitAdapter::listRevisions(const Path& file,
                          std::optional<std::reference_wrapper<const Revision>> from) const {
    return withProgress(u"Reading revisions", [&](GitRunner& runner) {
        return mayFetch(runner, [&](GitRunner& git) {
            return GitHistory(git).list(file, from ? &from->get() : nullptr);
        });
    });
}

std::unique_ptr<Revision> GitAdapter::findRevision(const Path& file, const UString& id) const {
    return withGit([&](GitRunner& git) { return GitHistory(git).find(file, id); });
}

std::unique_ptr<Revision> GitAdapter::getCurrentRevision(const Path& file) const {
    return withGit([&](GitRunner& runner) {
        return mayFetch(runner, [&](GitRunner& git) { return GitHistory(git).current(file); });
    });
}

std::vector<std::unique_ptr<Revision>>
GitAdapter::getParentRevisions(const Revision& revision) const {
    return withGit([&](GitRunner& runner) {
        return mayFetch(runner,
                        [&](GitRunner& git) { return GitHistory(git).parentsOf(revision); });
    });
}

void GitAdapter::exportRevision(const Path& file, const Revision& revision,
                                const Path& target) const {
    withGit([&](GitRunner& runner) {
        mayFetch(runner, [&](GitRunner& git) { GitHistory(git).exportTo(target, file, revision); });
    });
}

ConflictRevisions GitAdapter::getConflictRevisions(const Path& file) const {
    return withGit([&](GitRunner& git) { return GitHistory(git).conflictOf(file); });
}

Path GitAdapter::getRootFolder() const {
    return m_root;
}

std::vector<UString> GitAdapter::getForbiddenFileNames() const {
    return {u".git"};
}

UString GitAdapter::getRepositorySpecifier(const Path&) const {
    return withGit([&](GitRunner& git) {
        // The remote of the current branch, else "origin", else the only one there is.
        constexpr int noneFound = 1;
        std::map<std::string, std::string> remotes, ofBranch;
        NulSplitter("config").feed(
            git.read({.arguments = {"config", "-z", "--get-regexp",
                                    "^(remote\\..*\\.url|branch\\..*\\.remote)$"}},
                     noneFound),
            [&](std::string_view record) {
                const auto keyEnd = std::min(record.find('\n'), record.size());
                const auto key = record.substr(0, keyEnd);
                const std::string value(record.substr(std::min(keyEnd + 1, record.size())));
                if (key.starts_with("remote."))
                    remotes.emplace(key.substr(7, key.size() - 11), value);
                else
                    ofBranch.insert_or_assign(std::string(key.substr(7, key.size() - 14)), value);
            });
        std::string name = "origin";
        constexpr std::string_view branches = "refs/heads/";
        if (const auto head = git.repository().headReference(); head && head->starts_with(branches))
            if (const auto found = ofBranch.find(head->substr(branches.size()));
                found != ofBranch.end() && remotes.contains(found->second))
                name = found->second;
        auto remote = remotes.find(name);
        if (remote == remotes.end() && remotes.size() == 1)
            remote = remotes.begin();
        if (remote == remotes.end())
            return UString(m_root.string());
        return toUString(withoutSecrets(remote->second));
    });
}

UString GitAdapter::getInitialCheckinMessage() const {
    constexpr std::size_t limit = 1024 * 1024;
    constexpr int noneFound = 1;
    return withGit([&](GitRunner& git) {
        const auto comment = withoutLineEnds(
            git.read({.arguments = {"config", "--get", "core.commentChar"}}, noneFound));
        const std::string start = comment.empty() || comment == "auto" ? "#" : comment;
        for (const char* name : {"MERGE_MSG", "SQUASH_MSG"})
            if (const auto text = readSmallFile(git.repository().gitDir() + "/" + name, limit))
                return toUString(withoutComments(*text, start));
        auto file = withoutLineEnds(git.read(
            {.arguments = {"config", "--type=path", "--get", "commit.template"}}, noneFound));
        if (file.empty())
            return UString();
        if (file.front() != '/')
            file = git.repository().root() + "/" + file;
        return toUString(withoutComments(readSmallFile(file, limit).value_or(""), start));
    });
}

std::any GitAdapter::getSubsystem(const std::type_info& type) {
    if (isSameType(type, typeid(BranchInformation)))
        return static_cast<BranchInformation*>(this);
    if (isSameType(type, typeid(IgnoreRuleEditor)))
        return static_cast<IgnoreRuleEditor*>(this);
    if (isSameType(type, typeid(RevisionContent)))
        return static_cast<RevisionContent*>(this);
    if (isSameType(type, typeid(RevisionHistory)))
        return static_cast<RevisionHistory*>(this);
    if (isSameType(type, typeid(StateDependencies)))
        return static_cast<StateDependencies*>(this);
    return {};
}

BranchState GitAdapter::getBranchState() const {
    return withGit([&](GitRunner& runner) {
        return ask(runner, {"branch"}, [](GitRunner& git) { return readBranchState(git); });
    });
}

std::optional<std::string> GitAdapter::getContent(const Path& file, const UString& revision,
                                                  std::size_t limit) const {
    return withGit([&](GitRunner& git) { return GitHistory(git).content(file, revision, limit); });
}

std::optional<std::string> GitAdapter::getStagedContent(const Path& file, std::size_t limit) const {
    return withGit([&](GitRunner& git) { return GitHistory(git).stagedContent(file, limit); });
}

void GitAdapter::readRevisions(
    const Path& path, const RevisionQuery& query,
    const std::function<bool(std::unique_ptr<Revision>)>& receive) const {
    // When git has to be started again, it begins at the same revision, and what was handed over
    // already is left out.
    RevisionQuery from = query;
    Revision first;
    std::size_t handedOver = 0;
    std::exception_ptr failure; // the receiver's
    withGit([&](GitRunner& runner) {
        mayFetch(runner, [&](GitRunner& git) {
            if (handedOver > 0)
                from.from = &first;
            GitHistory(git).read(path, from, [&, left = handedOver](auto revision) mutable {
                if (left > 0) {
                    --left;
                    return true;
                }
                if (handedOver++ == 0) {
                    first.id = revision->id;
                    first.path = revision->path;
                }
                try {
                    return receive(std::move(revision));
                } catch (...) {
                    failure = std::current_exception();
                    return false;
                }
            });
        });
    });
    if (failure)
        std::rethrow_exception(failure);
}

std::vector<StateDependency>
GitAdapter::getStateDependencies(const std::vector<Path>& nested,
                                 const std::vector<Path>& changed) const {
    const std::lock_guard lock(m_dependenciesLock);
    return withGit([&](GitRunner& runner) {
        return ask(runner, {"dependencies"},
                   [&](GitRunner& git) { return m_dependencies.find(git, nested, changed); });
    });
}

void GitAdapter::setCredentialProvider(std::weak_ptr<CredentialProvider> provider) {
    const std::lock_guard lock(m_lock);
    m_credentialProvider = std::move(provider);
}

std::string withoutSecrets(const std::string& url) {
    const auto schemeEnd = url.find("://");
    if (schemeEnd == std::string::npos)
        return url; // a path, or user@host:path, which has no place for a password
    const auto hostStart = schemeEnd + 3;
    const auto pathStart = std::min(url.find_first_of("/?#", hostStart), url.size());
    const auto at = url.rfind('@', pathStart);
    std::string result = url.substr(0, hostStart);
    auto host = hostStart;
    if (at != std::string::npos && at > schemeEnd) {
        host = at + 1;
        const auto user = url.substr(hostStart, at - hostStart);
        if (result.starts_with("ssh") || result.starts_with("git") || result.starts_with("svn"))
            result += user.substr(0, user.find(':')) + "@";
    }
    return result + url.substr(host, std::min(url.find_first_of("?#", host), url.size()) - host);
}

double fractionIn(std::string_view line) {
    const auto end = line.rfind("% (");
    if (end == std::string_view::npos)
        return ProgressIndicator::unknown;
    std::uint64_t done = 0, all = 0;
    const auto* const last = line.data() + line.size();
    const auto first = std::from_chars(line.data() + end + 3, last, done);
    if (first.ec != std::errc() || first.ptr == last || *first.ptr != '/')
        return ProgressIndicator::unknown;
    const auto second = std::from_chars(first.ptr + 1, last, all);
    if (second.ec != std::errc() || second.ptr == last || *second.ptr != ')' || done > all ||
        all == 0)
        return ProgressIndicator::unknown;
    return static_cast<double>(done) / static_cast<double>(all);
}

std::string withoutSecretsInText(std::string text) {
    for (std::size_t at = 0; (at = text.find("://", at)) != std::string::npos;) {
        auto start = at;
        while (start > 0 && std::isalnum(static_cast<unsigned char>(text[start - 1])) != 0)
            --start;
        const auto end = std::min(text.find_first_of(" \t\r\n'\"", at), text.size());
        const auto clean = withoutSecrets(text.substr(start, end - start));
        text.replace(start, end - start, clean);
        at = std::max(start + clean.size(), at + 3);
    }
    return text;
}

} // namespace quendo::git
