#include "quendo/adapter/EventBroadcastingCMAdapter.h"

#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"

#include <boost/signals2/signal.hpp>

#include <utility>

namespace quendo {

struct EventBroadcastingCMAdapter::Signals {
    const std::shared_ptr<platform::FileUtilities> files = platform::services()->files;
    boost::signals2::signal<void(std::vector<Path>)> folderStatus;
    boost::signals2::signal<void(std::vector<Path>)> fileStatus;
    boost::signals2::signal<void()> update;
};

EventBroadcastingCMAdapter::EventBroadcastingCMAdapter(std::unique_ptr<CMAdapter> adapter)
    : CMAdapterDecorator(std::move(adapter)), m_signals(std::make_unique<Signals>()) {}

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
