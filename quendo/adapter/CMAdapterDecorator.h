#pragma once

#include "quendo/adapter/CMAdapter.h"

namespace quendo {

/// Forwards every operation but ignoreFile to the adapter that it owns. Decorators override what
/// they change and call this class's implementation to forward.
///
/// ignoreFile is deliberately not forwarded: on any decorator it is CMAdapter's own.
class QUENDO_API CMAdapterDecorator : public CMAdapter {
public:
    /// @param adapter the adapter to wrap, not null; destroyed with this one.
    /// @throws exception::InvalidArgumentError when it is null.
    explicit CMAdapterDecorator(std::unique_ptr<CMAdapter> adapter);
    ~CMAdapterDecorator() override;

    UserInfo getUserInfo() const override;
    MetadataFolder getMetadataFolder() const override;
    std::vector<UString> getMetadataFiles() const override;
    bool isFeatureSupported(SupportedFeature feature) const override;
    void checkin(const Path& file, const UString& message) const override;
    void checkin(const std::vector<Path>& files, const UString& message) const override;
    void addFiles(const std::vector<Path>& files) const override;
    void removeFiles(const std::vector<Path>& files) const override;
    void moveFile(const Path& source, const Path& destination) const override;
    void uncheckout(const std::vector<Path>& files) const override;
    void discardChanges() const override;
    void checkout(const std::vector<Path>& files) const override;
    void resolveConflict(const Path& file) const override;
    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override;
    std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const override;
    std::vector<std::unique_ptr<Revision>>
    listRevisions(const Path& file,
                  std::optional<std::reference_wrapper<const Revision>> from) const override;
    std::unique_ptr<Revision> findRevision(const Path& file, const UString& id) const override;
    std::unique_ptr<Revision> getCurrentRevision(const Path& file) const override;
    std::vector<std::unique_ptr<Revision>>
    getParentRevisions(const Revision& revision) const override;
    void exportRevision(const Path& file, const Revision& revision,
                        const Path& target) const override;
    ConflictRevisions getConflictRevisions(const Path& file) const override;
    Path getRootFolder() const override;
    std::vector<UString> getForbiddenFileNames() const override;
    UString getRepositorySpecifier(const Path& path) const override;
    UString getInitialCheckinMessage() const override;
    std::any getSubsystem(const std::type_info& type) override;
    void setCredentialProvider(std::weak_ptr<CredentialProvider> provider) override;

private:
    std::unique_ptr<CMAdapter> m_adapter;
};

} // namespace quendo
