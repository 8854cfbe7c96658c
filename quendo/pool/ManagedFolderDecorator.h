#pragma once

#include "quendo/pool/ManagedFolder.h"

namespace quendo {

/// Passes every operation on to the folder that it wraps and keeps alive. Wrappers override what
/// they change.
class QUENDO_API ManagedFolderDecorator : public ManagedFolder {
public:
    /// @throws exception::InvalidArgumentError when `folder` is null
    explicit ManagedFolderDecorator(std::shared_ptr<ManagedFolder> folder);
    ~ManagedFolderDecorator() override;

    Path getRootFolder() const override;
    CMAdapter& getAdapter() const override;
    UString getSystemName() const override;
    std::string getSystemID() const override;
    CMInteractor& getCMInteractor() const override;
    CMStatusCache& getCache() const override;
    StatusTrigger& getStatusTrigger() const override;
    Terminator& getTerminator() const override;
    std::string getUUID() const override;
    void addClient(const std::string& clientId) override;
    void removeClient(const std::string& clientId) override;
    std::map<std::string, std::uint64_t> getClients() const override;
    std::unique_ptr<ScopedDisablement> disable() override;
    boost::signals2::connection connectDeleted(const DeletedSlot& slot) override;
    BranchStateCache* getBranchStateCache() const override;

    /// The folder that it wraps.
    ManagedFolder& wrapped() const noexcept { return *m_folder; }

private:
    const std::shared_ptr<ManagedFolder> m_folder;
};

} // namespace quendo
