#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UniqueFunction.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <exception>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace quendo {

class FaultyFolder;
class ManagedFolder;

namespace platform {
struct Services;
}

/// Finds the working copy that a path belongs to, and gives everybody the same managed folder for
/// it as long as somebody holds it.
///
/// The innermost working copy owns a path. Symbolic links on the way are resolved, and so is the
/// path's last part when it leads to a folder, so one working copy has one folder however it is
/// spelled.
///
/// Threads: any. A request reads small files of the repository, and making a folder watches it:
/// keep both off a thread that must not wait (provideLater()). Slots run on the thread of the
/// request or of the release that they tell about, without a lock; what they throw is logged. They
/// may do anything, also destroy the provider.
///
/// Of one root, folders are announced as made, deleted (any number of times), released, made, and
/// so on. A notice that comes while slots are called for another one about the same root, on any
/// thread, follows there, and nobody waits for it.
class QUENDO_API ManagedFolderProvider {
public:
    using FolderSlot = boost::signals2::slot<void(std::shared_ptr<ManagedFolder>)>;
    using ClientSlot = boost::signals2::slot<void(const std::string&)>;
    using FaultSlot = boost::signals2::slot<void(std::shared_ptr<FaultyFolder>)>;
    using PathSlot = boost::signals2::slot<void(const Path&)>;

    virtual ~ManagedFolderProvider();

    /// The managed folder of the working copy that holds `folder`, which need not be a folder nor
    /// exist. The client is counted in as long as the result lives. Null when there is no working
    /// copy around it, or source control is switched off in the settings.
    /// @param folder absolute
    /// @throws exception::InvalidArgumentError for a path that is not absolute, or an identifier
    ///         that is empty or holds control characters;
    ///         shared_quendo::core::VFSChangeEventsError, with the reason nested, when the host's
    ///         event service refuses to watch the working copy;
    ///         exception::SourceControlException and what else the factory throws for a working
    ///         copy that cannot be used, also when another request made the attempt. Nothing is
    ///         left behind, and the next request tries again;
    ///         exception::SourceControlException when this thread, or one that waits for it, is
    ///         opening the working copy already, and when another request has been opening it for
    ///         minutes
    virtual std::shared_ptr<ManagedFolder> provideFor(const Path& folder,
                                                      const std::string& clientId) = 0;
    /// The same for the client "UNKNOWN".
    virtual std::shared_ptr<ManagedFolder> provideFor(const Path& folder) = 0;

    /// What is wrong with the working copy that holds `folder`: tries as provideFor() does, and
    /// returns what that throws as a faulty folder. Null when nothing is wrong, and where
    /// provideFor() returns null. To show and list a fault; where the folder itself is needed,
    /// provideFor() gives it or the reason in one call.
    /// @throws exception::InvalidArgumentError as provideFor()
    virtual std::shared_ptr<FaultyFolder> provideFaultyFor(const Path& folder,
                                                           const std::string& clientId) = 0;
    virtual std::shared_ptr<FaultyFolder> provideFaultyFor(const Path& folder) = 0;

    /// The folders that are alive, by root, and the faults that somebody holds.
    virtual std::vector<std::shared_ptr<ManagedFolder>> getManagedFolders() const = 0;
    virtual std::vector<std::shared_ptr<FaultyFolder>> getFaultyFolders() const = 0;

    /// A folder was made; as a rule before the request that made it returns. The argument counts
    /// no client in.
    virtual boost::signals2::connection connectFolderMade(const FolderSlot& slot) = 0;
    /// A client was given a folder.
    virtual boost::signals2::connection connectClientRegistered(const ClientSlot& slot) = 0;
    /// A folder could not be made. Whoever keeps the argument keeps the fault listed.
    virtual boost::signals2::connection connectFaultRecorded(const FaultSlot& slot) = 0;
    /// The root of a living folder has gone; see ManagedFolder::connectDeleted().
    virtual boost::signals2::connection connectFolderDeleted(const PathSlot& slot) = 0;
    /// A folder was let go by the last that held it. Nobody can get it any more; where the next
    /// folder of the root has been made already, its destructor may still be running.
    virtual boost::signals2::connection connectFolderReleased(const PathSlot& slot) = 0;
};

/// The provider of the process, made on first use and never destroyed.
QUENDO_API ManagedFolderProvider& getSingletonManagedFolderProvider();

/// A provider with a pool of its own. Folders that it gave may outlive it.
QUENDO_API std::unique_ptr<ManagedFolderProvider> createNewManagedFolderProviderInstance();
/// The same with services of its own: what it makes uses these and not the process's. Factories and
/// listeners that it calls do not see them.
/// @throws what platform::completed() throws
QUENDO_API std::unique_ptr<ManagedFolderProvider>
createNewManagedFolderProviderInstance(platform::Services services);

/// provideFor() on a thread of the library's, for threads that must not wait. The future may be
/// dropped. The provider must outlive the request, unless it is the library's own.
/// @throws std::system_error when no thread can be had
QUENDO_API std::future<std::shared_ptr<ManagedFolder>>
provideLater(ManagedFolderProvider& provider, const Path& folder, const std::string& clientId);

/// Keeps a request of provideLater() wanted: destroying it cancels the request. Movable.
///
/// Thread-compatible: concurrent use of one object needs external locking.
class QUENDO_API FolderRequest {
public:
    FolderRequest() noexcept;
    FolderRequest(FolderRequest&& other) noexcept;
    FolderRequest& operator=(FolderRequest&& other) noexcept;
    ~FolderRequest();

    /// The callback is destroyed and not called, unless it has been taken for the call already; it
    /// is not waited for then. A folder that is still being made is let go.
    void cancel() noexcept;

private:
    struct State;
    explicit FolderRequest(std::shared_ptr<State> state) noexcept;
    friend FolderRequest
    provideLater(ManagedFolderProvider& provider, const Path& folder, const std::string& clientId,
                 UniqueFunction<void(std::shared_ptr<ManagedFolder>, std::exception_ptr)> done);

    std::shared_ptr<State> m_state; ///< null when there is nothing to cancel
};

/// The same for a main loop: calls `done` once, on a thread of the library's, with what
/// provideFor() gave (null: no working copy) and null, or with null and what it threw. Hand both to
/// the main loop there. `done` may do anything, also wait. What it throws is logged. Let it hold
/// weakly what may go before: it may be running when the request is cancelled.
/// @throws std::system_error when no thread can be had; `done` will not be called
[[nodiscard]] QUENDO_API FolderRequest
provideLater(ManagedFolderProvider& provider, const Path& folder, const std::string& clientId,
             UniqueFunction<void(std::shared_ptr<ManagedFolder>, std::exception_ptr)> done);

/// `path` as provideFor() understands it: absolute, with the symbolic links on the way resolved,
/// and the last part too where it leads to a folder. So a link to a project gives the project's
/// place. Looks at the disk.
QUENDO_API Path managedPath(const Path& path);

/// `path` as the cache and the adapter of `folder` spell it: absolute, with the symbolic links on
/// the way resolved. The last part is kept when that lies below the folder's root, because a
/// symbolic link in a working copy has a state of its own, wherever it leads. A link from outside
/// to the root, or to what lies below it, gives its target. What lies outside the folder comes back
/// as managedPath(path) gives it. Looks at the disk.
QUENDO_API Path managedPath(const ManagedFolder& folder, const Path& path);

} // namespace quendo
