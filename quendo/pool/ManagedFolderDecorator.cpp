#include "quendo/pool/ManagedFolderDecorator.h"

#include "quendo/platform/InvalidArgumentError.h"

#include <utility>

namespace quendo {

ManagedFolderDecorator::ManagedFolderDecorator(std::shared_ptr<ManagedFolder> folder)
    : m_folder(std::move(folder)) {
    if (m_folder == nullptr)
        throw exception::InvalidArgumentError("a decorator needs a managed folder");
}

ManagedFolderDecorator::~ManagedFolderDecorator() = default;

Path ManagedFolderDecorator::getRootFolder() const {
    return m_folder->getRootFolder();
}

CMAdapter& ManagedFolderDecorator::getAdapter() const {
    return m_folder->getAdapter();
}

UString ManagedFolderDecorator::getSystemName() const {
    return m_folder->getSystemName();
}

std::string ManagedFolderDecorator::getSystemID() const {
    return m_folder->getSystemID();
}

CMInteractor& ManagedFolderDecorator::getCMInteractor() const {
    return m_folder->getCMInteractor();
}

CMStatusCache& ManagedFolderDecorator::getCache() const {
    return m_folder->getCache();
}

StatusTrigger& ManagedFolderDecorator::getStatusTrigger() const {
    return m_folder->getStatusTrigger();
}

Terminator& ManagedFolderDecorator::getTerminator() const {
    return m_folder->getTerminator();
}

std::string ManagedFolderDecorator::getUUID() const {
    return m_folder->getUUID();
}

void ManagedFolderDecorator::addClient(const std::string& clientId) {
    m_folder->addClient(clientId);
}

void ManagedFolderDecorator::removeClient(const std::string& clientId) {
    m_folder->removeClient(clientId);
}

std::map<std::string, std::uint64_t> ManagedFolderDecorator::getClients() const {
    return m_folder->getClients();
}

std::unique_ptr<ManagedFolder::ScopedDisablement> ManagedFolderDecorator::disable() {
    return m_folder->disable();
}

boost::signals2::connection ManagedFolderDecorator::connectDeleted(const DeletedSlot& slot) {
    return m_folder->connectDeleted(slot);
}

BranchStateCache* ManagedFolderDecorator::getBranchStateCache() const {
    return m_folder->getBranchStateCache();
}

} // namespace quendo
