#include "quendo/platform/standard/StandardEventMgr.h"

#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Services.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <utility>

namespace quendo::platform {
namespace {

StorageEventKind kindOf(FolderEvent::Kind kind) noexcept {
    switch (kind) {
    case FolderEvent::Kind::Appeared:
        return StorageEventKind::Created;
    case FolderEvent::Kind::Changed:
        return StorageEventKind::Changed;
    case FolderEvent::Kind::Vanished:
        return StorageEventKind::Deleted;
    case FolderEvent::Kind::ContentsUnknown:
        break;
    }
    return StorageEventKind::ContentsUnknown;
}

FileOrFolder subjectOf(const FolderEvent& event) {
    if (event.kind == FolderEvent::Kind::ContentsUnknown)
        return Folder(event.path);
    return File(event.path);
}

} // namespace

// Shared with the subscriptions, which may outlive the manager.
struct StandardEventMgr::State {
    struct Published {
        std::set<StorageEventKind> kinds;
        std::size_t unclaimed = 0; // publications that no subscription has followed yet
        std::size_t subscriptions = 0;
    };

    mutable std::mutex mutex;
    std::unordered_map<Path, Published> published; ///< guarded by mutex
    SubscriptionCountByTag tags;                   ///< guarded by mutex
};

class StandardEventMgr::Subscription : public EventSubscription {
public:
    Subscription(std::shared_ptr<State> state, Path folder, const std::set<StorageEventKind>& kinds,
                 std::vector<std::string> tags)
        : m_state(std::move(state)), m_folder(std::move(folder)), m_tags(std::move(tags)) {
        const std::lock_guard lock(m_state->mutex);
        const auto at = m_state->published.find(m_folder);
        if (at == m_state->published.end() || !std::ranges::includes(at->second.kinds, kinds))
            throw ChangeEventsSubscriptionException(
                "The events of " + m_folder.toUtf8() +
                " are not published: call publishEventsFor() for these kinds first");
        for (const auto& tag : m_tags)
            m_state->tags.try_emplace(tag); // all that can fail, first
        for (const auto& tag : m_tags)
            ++m_state->tags.find(tag)->second;
        ++at->second.subscriptions;
        if (at->second.unclaimed != 0)
            --at->second.unclaimed;
    }
    ~Subscription() override {
        watch.reset();
        const std::lock_guard lock(m_state->mutex);
        for (const auto& tag : m_tags) {
            if (const auto at = m_state->tags.find(tag); --at->second == 0)
                m_state->tags.erase(at);
        }
        const auto at = m_state->published.find(m_folder);
        if (--at->second.subscriptions == 0 && at->second.unclaimed == 0)
            m_state->published.erase(at);
    }

    std::unique_ptr<FolderWatcher::Watch> watch;

private:
    const std::shared_ptr<State> m_state;
    const Path m_folder;
    const std::vector<std::string> m_tags;
};

StandardEventMgr::StandardEventMgr(std::shared_ptr<FolderWatcher> watcher)
    : m_watcher(std::move(watcher)), m_state(std::make_shared<State>()) {}

StandardEventMgr::~StandardEventMgr() = default;

std::shared_ptr<StandardEventMgr> StandardEventMgr::instance() {
    static const auto& manager = *new std::shared_ptr<StandardEventMgr>(new StandardEventMgr);
    return manager;
}

void StandardEventMgr::publishEventsFor(const FileOrFolder& fileOrFolder,
                                        const std::vector<StorageEventKind>& kinds,
                                        WithRecursiveChangeEvents recursive) {
    const auto location = getLocation(fileOrFolder);
    const auto* folder = std::get_if<Folder>(&fileOrFolder);
    if (folder == nullptr || recursive != WithRecursiveChangeEvents::NonRecursive)
        throw ChangeEventsSubscriptionException(
            "The events of " + location.toString() +
            " cannot be published: only what lies directly in a folder can be watched");
    const std::lock_guard lock(m_state->mutex);
    auto& published = m_state->published[folder->path()];
    published.kinds.insert(kinds.begin(), kinds.end());
    ++published.unclaimed;
}

std::unique_ptr<EventSubscription>
StandardEventMgr::subscribe(Handler handler, const std::vector<EventType>& types,
                            const std::vector<std::string>& userTags) {
    if (std::ranges::any_of(userTags, [](const auto& tag) { return tag.empty(); }))
        throw std::logic_error("cannot add user tags.");
    if (types.empty() || std::ranges::any_of(types, [&](const auto& type) {
            return type.location().toString() != types.front().location().toString();
        }))
        throw exception::InvalidArgumentError(
            "a subscription needs event types, all at one location");
    const Path folder = fromAbsoluteIRI(types.front().location());
    std::set<StorageEventKind> kinds;
    for (const auto& type : types)
        kinds.insert(type.kind());
    auto subscription = std::make_unique<Subscription>(m_state, folder, kinds, userTags);
    const auto watcher = m_watcher != nullptr ? m_watcher : services()->folderWatcher;
    subscription->watch =
        watcher->watch(folder, FolderWatcher::Scope::Entries,
                       [kinds, handler = std::move(handler)](const FolderEvent& event) {
                           const auto kind = kindOf(event.kind);
                           if (kind == StorageEventKind::ContentsUnknown || kinds.contains(kind))
                               handler(Event(EventData(kind, subjectOf(event))));
                       });
    return subscription;
}

void StandardEventMgr::unsubscribe(const FileOrFolder&,
                                   std::unique_ptr<EventSubscription> subscription) {
    subscription.reset();
}

SubscriptionCountByTag StandardEventMgr::getSubscriptionCountByTag() const {
    const std::lock_guard lock(m_state->mutex);
    return m_state->tags;
}

} // namespace quendo::platform
