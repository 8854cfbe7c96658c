#pragma once

#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/OwnWrites.h"
#include "quendo/platform/UniqueFunction.h"

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace quendo {

/// Decides which events of a folder watcher a change detector reports: see the essay in the source.
///
/// Threads: any; disregards() on the watcher's. Fences that it has drawn hold it weakly.
class DetectionSwitch : public std::enable_shared_from_this<DetectionSwitch> {
public:
    /// @param missed called when events that were disregarded have to be reported after all; any
    ///               thread, without a lock; must not throw
    DetectionSwitch(std::shared_ptr<platform::FolderWatcher> watcher, Path root,
                    std::function<void()> missed);

    /// For each event, in the order in which the watcher reports them.
    bool disregards(const platform::FolderEvent& event) noexcept;

    /// Disregards everything from now on. @throws as FolderWatcher::fence()
    void turnOff();
    /// Disregards nothing from now on, whatever turned it off, but for own writes.
    /// @param reached called on the watcher's thread when all that happened before was reported;
    ///                destroyed uncalled when that cannot be known
    /// @throws as FolderWatcher::fence(); it is on then
    void turnOn(UniqueFunction<void()> reached);

    /// For one operation; its first span has begun.
    std::shared_ptr<OwnWrites> makeOwnWrites();

private:
    struct SpanState;
    class Writes;
    struct OnFence;
    struct EndFence;

    std::uint64_t nextNumber();
    void setOn(std::uint64_t number) noexcept;
    void open(const std::shared_ptr<SpanState>& span);
    void close(const std::shared_ptr<SpanState>& span) noexcept;
    void voidSpan(const std::shared_ptr<SpanState>& span) noexcept;

    const std::shared_ptr<platform::FolderWatcher> m_watcher;
    const Path m_root;
    const std::function<void()> m_missed;

    std::mutex m_mutex;           // guards the rest, and the spans
    std::uint64_t m_switches = 0; // fences of turnOff() and turnOn()
    std::uint64_t m_onBy = 0;     // the last of turnOn() that was reached
    bool m_isOn = true;
    bool m_lostWhileOff = false;
    // Those whose begin was reached and whose end was not.
    std::list<std::shared_ptr<SpanState>> m_spans;
};

} // namespace quendo
