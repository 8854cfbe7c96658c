#pragma once

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/ListenerFailure.h"
#include "quendo/platform/Export.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <memory>

namespace quendo {

/// Tells what each mutating operation changed, after it has succeeded; one that throws tells
/// nothing.
///
/// | operation | tells |
/// |---|---|
/// | both forms of checkin | update: everything may have changed; no file is named |
/// | addFiles, removeFiles, uncheckout, checkout, resolveConflict | file status of those files |
/// | moveFile | status of source and destination: folder status when the source was a folder |
///
/// discardChanges and everything else tell nothing; that is deliberate.
///
/// Threads: any. Listeners run on the thread that called the operation, before it returns. What a
/// listener throws reaches that caller, though the operation has taken effect; ListenerFailure says
/// whether the listeners behind are called. Destroying the adapter disconnects all listeners; a
/// listener may do that too.
class QUENDO_API EventBroadcastingCMAdapter : public CMAdapterDecorator {
public:
    using PathsSlot = boost::signals2::slot<void(std::vector<Path>)>;
    using UpdateSlot = boost::signals2::slot<void()>;

    /// @param onFailure that of a managed folder spares the rest
    /// @throws exception::InvalidArgumentError when `adapter` is null
    explicit EventBroadcastingCMAdapter(std::unique_ptr<CMAdapter> adapter,
                                        ListenerFailure onFailure = ListenerFailure::SkipsRest);
    ~EventBroadcastingCMAdapter() override;

    /// The states of these folders and of all below them may have changed.
    boost::signals2::connection addFolderStatusListener(const PathsSlot& slot);
    /// The states of exactly these files may have changed.
    boost::signals2::connection addStatusListener(const PathsSlot& slot);
    /// The repository as a whole has changed.
    boost::signals2::connection addUpdateListener(const UpdateSlot& slot);

    void dispatchFolderStatusChanged(const std::vector<Path>& folders) const;
    void dispatchFileStatusChanged(const std::vector<Path>& files) const;
    void dispatchUpdate() const;
    /// Both, for one operation: the folders first, unless there are none.
    void dispatchStatusChanged(const std::vector<Path>& folders,
                               const std::vector<Path>& files) const;

    void checkin(const Path& file, const UString& message) const override;
    void checkin(const std::vector<Path>& files, const UString& message) const override;
    void addFiles(const std::vector<Path>& files) const override;
    void removeFiles(const std::vector<Path>& files) const override;
    void moveFile(const Path& source, const Path& destination) const override;
    void uncheckout(const std::vector<Path>& files) const override;
    void checkout(const std::vector<Path>& files) const override;
    void resolveConflict(const Path& file) const override;

private:
    struct Signals;
    std::unique_ptr<Signals> m_signals; ///< goes before the wrapped adapter
};

} // namespace quendo
