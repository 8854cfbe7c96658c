#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/VirtualFileSystem.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quendo::platform {

/// What can be subscribed to: one kind of event at one location. A value.
class QUENDO_API EventType {
public:
    EventType(StorageEventKind kind, AbsoluteIRI location) noexcept
        : m_kind(kind), m_location(std::move(location)) {}

    StorageEventKind kind() const noexcept { return m_kind; }
    const AbsoluteIRI& location() const noexcept { return m_location; }

    /// The types that this one is made from, the nearest first: three names.
    /// @throws std::out_of_range beyond these
    static std::string baseType(std::size_t index);

private:
    StorageEventKind m_kind;
    AbsoluteIRI m_location;
};

/// One type for each kind, in their order, at the location with this text.
/// @throws exception::InvalidArgumentError when that is no AbsoluteIRI
QUENDO_API std::vector<EventType> createEventTypes(const std::vector<StorageEventKind>& kinds,
                                                   const std::string& location);

class EventData {
public:
    EventData(StorageEventKind kind, FileOrFolder fileOrFolder) noexcept
        : m_kind(kind), m_fileOrFolder(std::move(fileOrFolder)) {}

    StorageEventKind getKind() const noexcept { return m_kind; }

    /// What the event is about. It may be a File also when it is a folder on the disk.
    const FileOrFolder& getFileOrFolder() const noexcept { return m_fileOrFolder; }

private:
    StorageEventKind m_kind;
    FileOrFolder m_fileOrFolder;
};

class Event {
public:
    explicit Event(EventData data) noexcept : m_data(std::move(data)) {}
    const EventData& getEventData() const noexcept { return m_data; }

private:
    EventData m_data;
};

/// Keeps a subscription; ends it when it is destroyed. After that no handler of it begins, and none
/// runs any more unless it is the one that destroys it.
class QUENDO_API EventSubscription {
public:
    virtual ~EventSubscription();
};

/// How many subscriptions carry each tag.
using SubscriptionCountByTag = std::map<std::string, std::size_t>;

/// Delivers events. Threads: any. Handlers run on the service's delivery threads; they must be
/// quick, and may subscribe and unsubscribe.
class QUENDO_API EventMgr {
public:
    using Handler = std::function<void(const Event&)>;

    virtual ~EventMgr();

    /// @param types all at one location, for which events of these kinds are published
    /// @param userTags names for counting subscriptions, none of them empty
    /// @throws ChangeEventsSubscriptionException when the events cannot be had
    /// @throws exception::InvalidArgumentError for types that are none or at several locations
    /// @throws std::logic_error "cannot add user tags." for tags that cannot be taken
    [[nodiscard]] virtual std::unique_ptr<EventSubscription>
    subscribe(Handler handler, const std::vector<EventType>& types,
              const std::vector<std::string>& userTags) = 0;

    /// Ends a subscription to events of `fileOrFolder`.
    virtual void unsubscribe(const FileOrFolder& fileOrFolder,
                             std::unique_ptr<EventSubscription> subscription) = 0;

    virtual SubscriptionCountByTag getSubscriptionCountByTag() const = 0;
};

} // namespace quendo::platform
