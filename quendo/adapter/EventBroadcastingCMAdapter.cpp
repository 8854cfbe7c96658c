#include "quendo/adapter/EventBroadcastingCMAdapter.h"

#include "quendo/adapter/ListenerSignal.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"

#include <exception>
#include <utility>

namespace quendo {

struct EventBroadcastingCMAdapter::Signals {
    explicit Signals(ListenerFailure onFailure)
        : folderStatus(onFailure), fileStatus(onFailure), update(onFailure) {}

    const std::shared_ptr<platform::FileUtilities> files = platform::services()->files;
    ListenerSignal<void(std::vector<Path>)> folderStatus;
    ListenerSignal<void(std::vector<Path>)> fileStatus;
    ListenerSignal<void()> update;
};

EventBroadcastingCMAdapter::EventBroadcastingCMAdapter(std::unique_ptr<CMAdapter> adapter,
                                                       ListenerFailure onFailure)
    : CMAdapterDecorator(std::move(adapter)), m_signals(std::make_unique<Signals>(onFailure)) {}

EventBroadcastingCMAdapter::~EventBroadcastingCMAdapter() = default;

boost::signals2::connection
EventBroadcastingCMAdapter::addFolderStatusListener(const PathsSlot& slot) {
    return m_signals->folderStatus.connect(slot);
}

boost::signals2::connection EventBroadcastingCMAdapter::addStatusListener(const PathsSlot& slot) {
    return m_signals->fileStatus.connect(slot);
}

boost::signals2::connection EventBroadcastingCMAdapter::addUpdateListener(const UpdateSlot& slot) {
    return m_signals->update.connect(slot);
}

void EventBroadcastingCMAdapter::dispatchFolderStatusChanged(
    const std::vector<Path>& folders) const {
    m_signals->folderStatus(folders);
}

void EventBroadcastingCMAdapter::dispatchFileStatusChanged(const std::vector<Path>& files) const {
    m_signals->fileStatus(files);
}

void EventBroadcastingCMAdapter::dispatchStatusChanged(const std::vector<Path>& folders,
                                                       const std::vector<Path>& files) const {
    const auto fileStatus = m_signals->fileStatus.hold();
    std::exception_ptr failure;
    try {
        if (!folders.empty())
            dispatchFolderStatusChanged(folders);
    } catch (...) {
        failure = std::current_exception();
    }
    (*fileStatus)(files); // this adapter may have gone
    if (failure != nullptr)
        std::rethrow_exception(std::move(failure));
}

void EventBroadcastingCMAdapter::dispatchUpdate() const {
    m_signals->update();
}

void EventBroadcastingCMAdapter::checkin(const Path& file, const UString& message) const {
    CMAdapterDecorator::checkin(file, message);
    dispatchUpdate();
}

void EventBroadcastingCMAdapter::checkin(const std::vector<Path>& files,
                                         const UString& message) const {
    CMAdapterDecorator::checkin(files, message);
    dispatchUpdate();
}

void EventBroadcastingCMAdapter::addFiles(const std::vector<Path>& files) const {
    CMAdapterDecorator::addFiles(files);
    dispatchFileStatusChanged(files);
}

void EventBroadcastingCMAdapter::removeFiles(const std::vector<Path>& files) const {
    CMAdapterDecorator::removeFiles(files);
    dispatchFileStatusChanged(files);
}

void EventBroadcastingCMAdapter::moveFile(const Path& source, const Path& destination) const {
    // Asked before the move: afterwards there is nothing at the source.
    const bool isFolder = m_signals->files->isDirectory(source);
    CMAdapterDecorator::moveFile(source, destination);
    if (isFolder)
        dispatchFolderStatusChanged({source, destination});
    else
        dispatchFileStatusChanged({source, destination});
}

void EventBroadcastingCMAdapter::uncheckout(const std::vector<Path>& files) const {
    CMAdapterDecorator::uncheckout(files);
    dispatchFileStatusChanged(files);
}

void EventBroadcastingCMAdapter::checkout(const std::vector<Path>& files) const {
    CMAdapterDecorator::checkout(files);
    dispatchFileStatusChanged(files);
}

void EventBroadcastingCMAdapter::resolveConflict(const Path& file) const {
    CMAdapterDecorator::resolveConflict(file);
    dispatchFileStatusChanged({file});
}

} // namespace quendo
