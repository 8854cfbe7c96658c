#pragma once

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <memory>
#include <optional>

namespace quendo {

class BackgroundTurns;
class Executor;

/// Runs what touches the working copy on one executor, one call at a time and in the order in
/// which the calls came: both forms of checkin and getStatus, addFiles, removeFiles, moveFile,
/// uncheckout, resolveConflict and listRevisions. The caller waits and gets the result, or the
/// exception, the same object.
///
/// Made with the root of its working copy, it tells the executor what each call works on
/// (Executor::postFor). While a call then waits outside the executor, as the Git adapter's do while
/// a hook runs or a partial clone fetches, getStatus and listRevisions of other working copies are
/// served. Operations that change something never overlap, and the calls of one working copy
/// never overlap and keep their order.
///
/// It reports to BackgroundTurns what background queries cost (QueryOrigin::urgency), and how many
/// other calls wait for the executor.
///
/// Everything else runs on the caller's thread beside them, checkout and discardChanges included;
/// that is deliberate.
///
/// Threads: any, but never a task of that executor: the calls above throw ExecutorDeadlockError
/// there. Destroying the adapter waits for nothing; it must not be in a call then.
class QUENDO_API SingleThreadedCMAdapter : public CMAdapterDecorator {
public:
    /// @param executor shared with as many adapters as are to take turns
    /// @throws exception::InvalidArgumentError when either is null
    SingleThreadedCMAdapter(std::shared_ptr<Executor> executor, std::unique_ptr<CMAdapter> adapter);
    /// @param workingCopy the root, canonical
    SingleThreadedCMAdapter(std::shared_ptr<Executor> executor, std::unique_ptr<CMAdapter> adapter,
                            const Path& workingCopy);
    ~SingleThreadedCMAdapter() override;

    void checkin(const Path& file, const UString& message) const override;
    void checkin(const std::vector<Path>& files, const UString& message) const override;
    void addFiles(const std::vector<Path>& files) const override;
    void removeFiles(const std::vector<Path>& files) const override;
    void moveFile(const Path& source, const Path& destination) const override;
    void uncheckout(const std::vector<Path>& files) const override;
    void resolveConflict(const Path& file) const override;
    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override;
    std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const override;
    std::vector<std::unique_ptr<Revision>>
    listRevisions(const Path& file,
                  std::optional<std::reference_wrapper<const Revision>> from) const override;

private:
    template <class Operation>
    auto change(Operation operation) const;
    template <class Operation>
    auto query(Operation operation) const;

    std::shared_ptr<Executor> m_executor;
    std::shared_ptr<BackgroundTurns> m_turns; ///< of the executor
    std::optional<Path> m_workingCopy;
};

} // namespace quendo
