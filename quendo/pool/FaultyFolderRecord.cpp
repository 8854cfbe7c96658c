#include "quendo/pool/FaultyFolderRecord.h"

#include "quendo/platform/Services.h"
#include "quendo/platform/UuidGenerator.h"
#include "quendo/pool/ViableLocation.h"

#include <algorithm>
#include <utility>

namespace quendo {

FaultyFolder::~FaultyFolder() = default;

PooledFaultyFolder::PooledFaultyFolder(std::pair<Path, std::uint64_t> location, Path folder,
                                       std::string clientId, std::exception_ptr error,
                                       std::function<void(std::string)> onRelease)
    : m_location(std::move(location)), m_folder(std::move(folder)), m_clientId(std::move(clientId)),
      m_uuid(platform::services()->uuids->generate()), m_error(std::move(error)),
      m_onRelease(std::move(onRelease)) {}

PooledFaultyFolder::~PooledFaultyFolder() {
    try {
        m_onRelease(m_uuid);
    } catch (...) {
    }
}

std::pair<Path, std::uint64_t> PooledFaultyFolder::getLocation() const {
    return m_location;
}

Path PooledFaultyFolder::getFolder() const {
    return m_folder;
}

std::string PooledFaultyFolder::getClientId() const {
    return m_clientId;
}

std::string PooledFaultyFolder::getUUID() const {
    return m_uuid;
}

std::exception_ptr PooledFaultyFolder::getError() const {
    return m_error;
}

std::shared_ptr<FaultyFolder> FaultyFolderRecord::addFault(const ViableLocation& location,
                                                           const Path& folder,
                                                           const std::string& clientId,
                                                           std::exception_ptr error) {
    const auto number = [&] {
        const std::lock_guard lock(m_mutex);
        return ++m_failed;
    }();
    const auto release = [weak = weak_from_this()](const std::string& uuid) {
        if (const auto record = weak.lock()) {
            const std::lock_guard lock(record->m_mutex);
            std::erase_if(record->m_entries, [&](const auto& each) { return each.uuid == uuid; });
            if (record->m_entries.empty())
                record->m_failed = 0;
        }
    };
    const std::shared_ptr<FaultyFolder> fault = std::make_shared<PooledFaultyFolder>(
        std::pair(location.root, number), folder, clientId, std::move(error), release);
    Entry entry{fault->getUUID(), fault};
    const std::lock_guard lock(m_mutex);
    m_entries.push_back(std::move(entry));
    return fault;
}

std::vector<std::shared_ptr<FaultyFolder>> FaultyFolderRecord::getFaults() const {
    std::vector<std::shared_ptr<FaultyFolder>> faults; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    faults.reserve(m_entries.size());
    for (const auto& entry : m_entries) {
        if (auto fault = entry.fault.lock())
            faults.push_back(std::move(fault));
    }
    return faults;
}

bool FaultyFolderRecord::isEmpty() const {
    const std::lock_guard lock(m_mutex);
    return std::ranges::all_of(m_entries, [](const auto& each) { return each.fault.expired(); });
}

} // namespace quendo
