#pragma once

#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/FolderWatcher.h"
#include "tests/support/Testing.h"

#include <boost/signals2/signal.hpp>

namespace quendo::test {

/// A folder watcher whose events the test gives, on the thread that gives them: at once, or, while
/// it is held, by deliver().
class FakeFolderWatcher final : public platform::FolderWatcher {
public:
    using Event = platform::FolderEvent;

    std::unique_ptr<Watch> watch(const Path& folder, Scope scope, Callback callback) override {
        if (folder == refused)
            throw platform::ChangeEventsSubscriptionException("refused");
        inWatch(folder);
        const std::lock_guard lock(m_mutex);
        m_watches.push_front({folder, scope, std::move(callback)});
        return std::make_unique<FakeWatch>(*this, m_watches.begin());
    }

    void fence(UniqueFunction<void()> reached) override {
        if (fails)
            throw std::bad_alloc();
        pass(std::move(reached));
    }

    platform::WatchHealth getHealth(const Path&) const override { return health; }
    boost::signals2::connection connectHealthChanged(const HealthSlot&) override { return {}; }

    /// Tells who watches the folder that the event is about.
    void tell(Event::Kind kind, const Path& path, bool polled = false) {
        pass([this, event = Event{kind, path, polled}] {
            const bool isFolder = event.kind == Event::Kind::ContentsUnknown;
            const auto parent = event.path.parentPath();
            std::vector<Callback> callbacks;
            {
                const std::lock_guard lock(m_mutex);
                for (const auto& one : m_watches) {
                    if (isFolder ? one.folder == event.path
                                 : one.scope == Scope::Entries && one.folder == parent)
                        callbacks.push_back(one.callback);
                }
            }
            for (const auto& callback : callbacks)
                callback(event);
        });
    }

    void deliver() {
        isHeld = false;
        for (; !m_queue.empty(); m_queue.pop_front())
            m_queue.front()();
    }

    std::multiset<Path> watched() const {
        const std::lock_guard lock(m_mutex);
        std::multiset<Path> folders;
        for (const auto& one : m_watches)
            folders.insert(one.folder);
        return folders;
    }

    /// Waits until nothing is watched.
    /// @return false when the deadline has passed
    bool awaitEnd() {
        std::unique_lock lock(m_mutex);
        return m_ended.wait_until(lock, byDeadline(), [&] { return m_watches.empty(); });
    }

    bool isHeld = false;
    bool fails = false; ///< no line can be drawn
    Path refused;
    std::function<void(const Path&)> inWatch = [](const Path&) {};
    platform::WatchHealth health; ///< of every folder

private:
    struct Entry {
        Path folder;
        Scope scope;
        Callback callback;
    };
    struct FakeWatch final : Watch {
        FakeWatch(FakeFolderWatcher& watcher, std::list<Entry>::iterator position)
            : owner(watcher), entry(position) {}
        ~FakeWatch() override {
            const std::lock_guard lock(owner.m_mutex);
            owner.m_watches.erase(entry);
            owner.m_ended.notify_all();
        }
        FakeFolderWatcher& owner;
        const std::list<Entry>::iterator entry;
    };

    void pass(UniqueFunction<void()> what) {
        if (isHeld)
            m_queue.push_back(std::move(what));
        else
            what();
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_ended;
    std::list<Entry> m_watches;
    std::list<UniqueFunction<void()>> m_queue;
};

} // namespace quendo::test
