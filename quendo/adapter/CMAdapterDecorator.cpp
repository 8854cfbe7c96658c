#include "quendo/adapter/CMAdapterDecorator.h"

#include "quendo/platform/InvalidArgumentError.h"

#include <utility>

namespace quendo {

CMAdapterDecorator::CMAdapterDecorator(std::unique_ptr<CMAdapter> adapter)
    : m_adapter(std::move(adapter)) {
    if (m_adapter == nullptr)
        throw exception::InvalidArgumentError("CMAdapterDecorator: there is no adapter to wrap");
}

CMAdapterDecorator::~CMAdapterDecorator() = default;

UserInfo CMAdapterDecorator::getUserInfo() const {
    return m_adapter->getUserInfo();
}

MetadataFolder CMAdapterDecorator::getMetadataFolder() const {
    return m_adapter->getMetadataFolder();
}

std::vector<UString> CMAdapterDecorator::getMetadataFiles() const {
    return m_adapter->getMetadataFiles();
}

bool CMAdapterDecorator::isFeatureSupported(SupportedFeature feature) const {
    return m_adapter->isFeatureSupported(feature);
}

void CMAdapterDecorator::checkin(const Path& file, const UString& message) const {
    m_adapter->checkin(file, message);
}

void CMAdapterDecorator::checkin(const std::vector<Path>& files, const UString& message) const {
    m_adapter->checkin(files, message);
}

void CMAdapterDecorator::addFiles(const std::vector<Path>& files) const {
    m_adapter->addFiles(files);
}

void CMAdapterDecorator::removeFiles(const std::vector<Path>& files) const {
    m_adapter->removeFiles(files);
}

void CMAdapterDecorator::moveFile(const Path& source, const Path& destination) const {
    m_adapter->moveFile(source, destination);
}

void CMAdapterDecorator::uncheckout(const std::vector<Path>& files) const {
    m_adapter->uncheckout(files);
}

void CMAdapterDecorator::discardChanges() const {
    m_adapter->discardChanges();
}

void CMAdapterDecorator::checkout(const std::vector<Path>& files) const {
    m_adapter->checkout(files);
}

void CMAdapterDecorator::resolveConflict(const Path& file) const {
    m_adapter->resolveConflict(file);
}

std::map<Path, FileState> CMAdapterDecorator::getStatus(const std::vector<Path>& files) const {
    return m_adapter->getStatus(files);
}

std::map<Path, FileState> CMAdapterDecorator::getStatus(const Path& path,
                                                        bool includeUntracked) const {
    return m_adapter->getStatus(path, includeUntracked);
}

std::vector<std::unique_ptr<Revision>> CMAdapterDecorator::listRevisions(
    const Path& file, std::optional<std::reference_wrapper<const Revision>> from) const {
    return m_adapter->listRevisions(file, from);
}

std::unique_ptr<Revision> CMAdapterDecorator::findRevision(const Path& file,
                                                           const UString& id) const {
    return m_adapter->findRevision(file, id);
}

std::unique_ptr<Revision> CMAdapterDecorator::getCurrentRevision(const Path& file) const {
    return m_adapter->getCurrentRevision(file);
}

std::vector<std::unique_ptr<Revision>>
CMAdapterDecorator::getParentRevisions(const Revision& revision) const {
    return m_adapter->getParentRevisions(revision);
}

void CMAdapterDecorator::exportRevision(const Path& file, const Revision& revision,
                                        const Path& target) const {
    m_adapter->exportRevision(file, revision, target);
}

ConflictRevisions CMAdapterDecorator::getConflictRevisions(const Path& file) const {
    return m_adapter->getConflictRevisions(file);
}

Path CMAdapterDecorator::getRootFolder() const {
    return m_adapter->getRootFolder();
}

std::vector<UString> CMAdapterDecorator::getForbiddenFileNames() const {
    return m_adapter->getForbiddenFileNames();
}

UString CMAdapterDecorator::getRepositorySpecifier(const Path& path) const {
    return m_adapter->getRepositorySpecifier(path);
}

UString CMAdapterDecorator::getInitialCheckinMessage() const {
    return m_adapter->getInitialCheckinMessage();
}

std::any CMAdapterDecorator::getSubsystem(const std::type_info& type) {
    return m_adapter->getSubsystem(type);
}

void CMAdapterDecorator::setCredentialProvider(std::weak_ptr<CredentialProvider> provider) {
    m_adapter->setCredentialProvider(std::move(provider));
}

} // namespace quendo
