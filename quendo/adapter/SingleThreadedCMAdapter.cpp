#include "quendo/adapter/SingleThreadedCMAdapter.h"

#include "quendo/platform/Executor.h"

#include <stdexcept>
#include <utility>

namespace quendo {

// The arguments go into the tasks by value: a caller may be torn down while its task still waits,
// if the executor is one that gives up.

SingleThreadedCMAdapter::SingleThreadedCMAdapter(std::shared_ptr<Executor> executor,
                                                 std::unique_ptr<CMAdapter> adapter)
    : CMAdapterDecorator(std::move(adapter)), m_executor(std::move(executor)) {
    if (m_executor == nullptr)
        throw std::invalid_argument("a single-threaded adapter needs an executor");
}

SingleThreadedCMAdapter::~SingleThreadedCMAdapter() = default;

void SingleThreadedCMAdapter::checkin(const Path& file, const UString& message) const {
    m_executor->runSyncTask([=, this] { CMAdapterDecorator::checkin(file, message); });
}

void SingleThreadedCMAdapter::checkin(const std::vector<Path>& files,
                                      const UString& message) const {
    m_executor->runSyncTask([=, this] { CMAdapterDecorator::checkin(files, message); });
}

void SingleThreadedCMAdapter::addFiles(const std::vector<Path>& files) const {
    m_executor->runSyncTask([=, this] { CMAdapterDecorator::addFiles(files); });
}

void SingleThreadedCMAdapter::removeFiles(const std::vector<Path>& files) const {
    m_executor->runSyncTask([=, this] { CMAdapterDecorator::removeFiles(files); });
}

void SingleThreadedCMAdapter::moveFile(const Path& source, const Path& destination) const {
    m_executor->runSyncTask([=, this] { CMAdapterDecorator::moveFile(source, destination); });
}

void SingleThreadedCMAdapter::uncheckout(const std::vector<Path>& files) const {
    m_executor->runSyncTask([=, this] { CMAdapterDecorator::uncheckout(files); });
}

void SingleThreadedCMAdapter::resolveConflict(const Path& file) const {
    m_executor->runSyncTask([=, this] { CMAdapterDecorator::resolveConflict(file); });
}

std::map<Path, FileState> SingleThreadedCMAdapter::getStatus(const std::vector<Path>& files) const {
    return m_executor->runSyncTask([=, this] { return CMAdapterDecorator::getStatus(files); });
}

std::map<Path, FileState> SingleThreadedCMAdapter::getStatus(const Path& path,
                                                             bool includeUntracked) const {
    return m_executor->runSyncTask(
        [=, this] { return CMAdapterDecorator::getStatus(path, includeUntracked); });
}

std::vector<std::unique_ptr<Revision>> SingleThreadedCMAdapter::listRevisions(
    const Path& file, std::optional<std::reference_wrapper<const Revision>> from) const {
    return m_executor->runSyncTask(
        [=, this] { return CMAdapterDecorator::listRevisions(file, from); });
}

} // namespace quendo
