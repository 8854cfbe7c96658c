#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/ScopeGuard.h"
#include "quendo/platform/UString.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace quendo {

class BranchStateCache;
class CMAdapter;
class CMInteractor;
class CMStatusCache;
class StatusTrigger;
class Terminator;

/// One working copy, as all clients share it: its adapter, its states and who uses it.
///
/// Set the cache's folder status flag before the first refresh if untracked files matter. The cache
/// is empty at the start: refreshAll() or loadFolder() fills it, and from then on it follows the
/// disk and the repository by itself.
///
/// Paths are those of getRootFolder() in its spelling; managedPath(folder, path) gives it for any
/// other.
///
/// Threads: any; working-copy operations of the adapter wait for their turn on the source-control
/// thread, so call nothing of it on a thread that must not wait. References stay valid as long as
/// the folder, and the last reference to that may be dropped anywhere, also in a listener.
class QUENDO_API ManagedFolder {
public:
    class ScopedDisablement;
    using DeletedSlot = boost::signals2::slot<void()>;

    virtual ~ManagedFolder();

    /// The working copy's root, canonical.
    virtual Path getRootFolder() const = 0;

    virtual CMAdapter& getAdapter() const = 0;

    /// For people: "Git".
    virtual UString getSystemName() const = 0;

    /// The identifier of the factory that made the adapter.
    virtual std::string getSystemID() const = 0;

    /// What stops its work, tells of progress, and tells that states should be fetched anew.
    virtual CMInteractor& getCMInteractor() const = 0;

    virtual CMStatusCache& getCache() const = 0;

    /// The other face of getCMInteractor(): a trigger says that states should be fetched anew,
    /// which the cache does without being asked again.
    virtual StatusTrigger& getStatusTrigger() const = 0;
    virtual Terminator& getTerminator() const = 0;

    /// Tells one instance from another, also of the same working copy.
    virtual std::string getUUID() const = 0;

    /// Counts one more, or one fewer, registration of a client. One whose count falls to 0 leaves
    /// the table; one that is not in it stays out.
    virtual void addClient(const std::string& clientId) = 0;
    virtual void removeClient(const std::string& clientId) = 0;

    /// The registrations by client identifier.
    virtual std::map<std::string, std::uint64_t> getClients() const = 0;

    /// Switches change detection off, of files and of the repository, until the result is
    /// destroyed. Plain switches: the first result that is destroyed turns both on again. Nothing
    /// is made up for afterwards: call refreshAll() then.
    virtual std::unique_ptr<ScopedDisablement> disable() = 0;

    /// Called whenever the root has gone: deleted, moved away, replaced, unmounted. The folder
    /// stays usable, and follows its root again when that returns. Slots run on a strand of the
    /// folder's own, without a lock.
    virtual boost::signals2::connection connectDeleted(const DeletedSlot& slot) = 0;

    /// The branch and the operation in progress, kept up in the background and readable without
    /// waiting. Null when the adapter does not tell its branch (BranchInformation); the default.
    virtual BranchStateCache* getBranchStateCache() const;
};

/// Keeps change detection off. Movable.
class QUENDO_API ManagedFolder::ScopedDisablement {
public:
    ScopedDisablement(scope_guard fileChanges, scope_guard externalChanges) noexcept
        : m_fileChanges(std::move(fileChanges)), m_externalChanges(std::move(externalChanges)) {}

private:
    // The repository first: its detector still takes in what belongs to the pause.
    scope_guard m_fileChanges;
    scope_guard m_externalChanges;
};

} // namespace quendo
