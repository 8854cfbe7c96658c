#pragma once

#include "quendo/pool/FaultyFolder.h"

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace quendo {

struct ViableLocation;

class QUENDO_API PooledFaultyFolder : public FaultyFolder {
public:
    /// @param onRelease called with the UUID when the object is destroyed; what it throws is
    ///                  swallowed
    PooledFaultyFolder(std::pair<Path, std::uint64_t> location, Path folder, std::string clientId,
                       std::exception_ptr error, std::function<void(std::string)> onRelease);
    ~PooledFaultyFolder() override;
    PooledFaultyFolder(const PooledFaultyFolder&) = delete;
    PooledFaultyFolder& operator=(const PooledFaultyFolder&) = delete;

    std::pair<Path, std::uint64_t> getLocation() const override;
    Path getFolder() const override;
    std::string getClientId() const override;
    std::string getUUID() const override;
    std::exception_ptr getError() const override;

private:
    const std::pair<Path, std::uint64_t> m_location;
    const Path m_folder;
    const std::string m_clientId;
    const std::string m_uuid;
    const std::exception_ptr m_error;
    const std::function<void(std::string)> m_onRelease;
};

/// The faults of one location that somebody holds. Keeps none of them alive. Threads: any.
class QUENDO_API FaultyFolderRecord : public std::enable_shared_from_this<FaultyFolderRecord> {
public:
    /// Must be owned by a shared_ptr.
    std::shared_ptr<FaultyFolder> addFault(const ViableLocation& location, const Path& folder,
                                           const std::string& clientId, std::exception_ptr error);

    /// In the order in which they were made.
    std::vector<std::shared_ptr<FaultyFolder>> getFaults() const;

    /// Whether nobody holds a fault.
    bool isEmpty() const;

private:
    struct Entry {
        std::string uuid;
        std::weak_ptr<FaultyFolder> fault;
    };

    mutable std::mutex m_mutex; ///< nothing is destroyed and nobody called under it
    // Guarded by m_mutex.
    std::vector<Entry> m_entries;
    std::uint64_t m_failed = 0;
};

} // namespace quendo
