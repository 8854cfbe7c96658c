#pragma once

#include "quendo/adapter/FileState.h"
#include "quendo/adapter/MetadataFolder.h"
#include "quendo/adapter/Revision.h"
#include "quendo/adapter/SupportedFeature.h"
#include "quendo/adapter/UserInfo.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <typeinfo>
#include <vector>

namespace quendo {

class CredentialProvider;

/// One working copy of one source-control system.
///
/// Paths are absolute, below getRootFolder() in its spelling; one that is not is answered with
/// nothing or refused.
///
/// Threads: the working-copy operations (getStatus, listRevisions and those that change something,
/// checkout and discardChanges excepted) are called one at a time, on the source-control executor.
/// All others may be called from any thread beside them; an adapter guards itself.
///
/// Errors are thrown: exception::SourceControlException and its family (AdapterErrors.h), or the
/// back end's own. An operation that fails leaves the working copy as it was.
///
/// The order of the operations is part of the contract; new ones go into other interfaces, reached
/// through getSubsystem().
class QUENDO_API CMAdapter {
public:
    virtual ~CMAdapter();

    /// Who the back end says the user is.
    virtual UserInfo getUserInfo() const = 0;

    /// The folder whose changes tell that something else changed the repository.
    virtual MetadataFolder getMetadataFolder() const = 0;

    /// Names of files in the working copy that change the states of others in their folder when
    /// they change (".gitignore"); they count at any depth.
    virtual std::vector<UString> getMetadataFiles() const = 0;

    virtual bool isFeatureSupported(SupportedFeature feature) const = 0;

    /// Commits the file as it is on disk, and nothing else.
    virtual void checkin(const Path& file, const UString& message) const = 0;
    virtual void checkin(const std::vector<Path>& files, const UString& message) const = 0;

    /// Puts files under source control. Nothing below a folder in the list is added with it.
    virtual void addFiles(const std::vector<Path>& files) const = 0;

    /// Schedules files for deletion and deletes them from disk.
    virtual void removeFiles(const std::vector<Path>& files) const = 0;

    virtual void moveFile(const Path& source, const Path& destination) const = 0;

    /// Gives the local changes of these files up; an added file stays on disk, untracked.
    virtual void uncheckout(const std::vector<Path>& files) const = 0;

    /// Gives all local changes up.
    virtual void discardChanges() const = 0;

    /// Makes files ready for change in systems that lock them.
    virtual void checkout(const std::vector<Path>& files) const = 0;

    /// Marks a conflicted file as resolved, as it is on disk.
    virtual void resolveConflict(const Path& file) const = 0;

    /// The states of these paths, tracked or not; a folder is answered with itself and all below
    /// it. What neither exists nor is tracked, and what lies outside the root or in the metadata,
    /// is left out. An empty list gives an empty map.
    virtual std::map<Path, FileState> getStatus(const std::vector<Path>& files) const = 0;

    /// The state of `path` and of everything below it: every tracked path, unmodified ones and
    /// folders included; with `includeUntracked` also the untracked ones one by one, and the
    /// ignored ones, a wholly ignored folder as one entry.
    virtual std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const = 0;

    /// The revisions that changed `file`, newest first, across renames, from `from` (included) or
    /// from the current one. Empty for a file without revisions.
    virtual std::vector<std::unique_ptr<Revision>>
    listRevisions(const Path& file,
                  std::optional<std::reference_wrapper<const Revision>> from) const = 0;

    /// The revision that `id` names, as far as it concerns `file`. Never null.
    virtual std::unique_ptr<Revision> findRevision(const Path& file, const UString& id) const = 0;

    /// The newest revision that changed `file`, or null for a file without revisions.
    virtual std::unique_ptr<Revision> getCurrentRevision(const Path& file) const = 0;

    /// The revisions directly before this one; empty for the first.
    virtual std::vector<std::unique_ptr<Revision>>
    getParentRevisions(const Revision& revision) const = 0;

    /// Writes `file` as it was in `revision` to `target`, as a checkout would: filters, line ends
    /// and file mode included; under the name that the revision gives the file, if it gives one.
    /// `target` must not exist; it is there whole or not at all.
    virtual void exportRevision(const Path& file, const Revision& revision,
                                const Path& target) const = 0;

    /// The sides of a conflicted file; all null when it is not conflicted.
    virtual ConflictRevisions getConflictRevisions(const Path& file) const = 0;

    /// The working copy's root, canonical. Cheap and constant.
    virtual Path getRootFolder() const = 0;

    /// File names that the back end reserves for itself (".git").
    virtual std::vector<UString> getForbiddenFileNames() const = 0;

    /// Names the repository that `path` belongs to, for people: its address, never with a
    /// password.
    virtual UString getRepositorySpecifier(const Path& path) const = 0;

    /// The text to start a check-in message with, such as that of a merge; may be empty.
    virtual UString getInitialCheckinMessage() const = 0;

    /// An optional interface of this adapter (BranchInformation, RevisionContent, RevisionHistory;
    /// findInterface() finds them): a std::any that holds a pointer to what `type` names, valid as
    /// long as the adapter, or an empty one.
    virtual std::any getSubsystem(const std::type_info& type) = 0;

    virtual void setCredentialProvider(std::weak_ptr<CredentialProvider> provider) = 0;

    /// Makes the back end ignore `file` from now on. Decorators do not forward this operation: of a
    /// managed folder call management::ignoreFiles().
    /// @throws exception::NotAvailableError unless an adapter overrides it.
    virtual void ignoreFile(const Path& file);
};

} // namespace quendo
