#pragma once

#include "quendo/platform/Export.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <functional>

namespace quendo {

class PooledManagedFolderProviderImpl;

/// Keeps its folders by weak references: a folder lives as long as somebody holds it.
///
/// Threads: any. Folders of different roots are made beside each other.
class QUENDO_API PooledManagedFolderProvider : public ManagedFolderProvider {
public:
    /// @param services as platform::completed() gives them; null for the process's
    explicit PooledManagedFolderProvider(
        std::shared_ptr<const platform::Services> services = nullptr);
    ~PooledManagedFolderProvider() override;

    std::shared_ptr<ManagedFolder> provideFor(const Path& folder,
                                              const std::string& clientId) override;
    std::shared_ptr<ManagedFolder> provideFor(const Path& folder) override;
    std::shared_ptr<FaultyFolder> provideFaultyFor(const Path& folder,
                                                   const std::string& clientId) override;
    std::shared_ptr<FaultyFolder> provideFaultyFor(const Path& folder) override;
    std::vector<std::shared_ptr<ManagedFolder>> getManagedFolders() const override;
    std::vector<std::shared_ptr<FaultyFolder>> getFaultyFolders() const override;
    boost::signals2::connection connectFolderMade(const FolderSlot& slot) override;
    boost::signals2::connection connectClientRegistered(const ClientSlot& slot) override;
    boost::signals2::connection connectFaultRecorded(const FaultSlot& slot) override;
    boost::signals2::connection connectFolderDeleted(const PathSlot& slot) override;
    boost::signals2::connection connectFolderReleased(const PathSlot& slot) override;

    /// provider.provideFor(); needs `provider` itself no more if it is of this very class.
    static std::function<std::shared_ptr<ManagedFolder>(const Path&, const std::string&)>
    later(ManagedFolderProvider& provider);

private:
    const std::shared_ptr<PooledManagedFolderProviderImpl> m_impl;
};

} // namespace quendo
