#include "quendo/platform/DetectionSwitch.h"

#include "quendo/platform/Logging.h"

#include <utility>

// Which changes are reported
//
// A host suspends detection (turnOff, turnOn), and an operation of the library disregards what it
// writes itself (OwnWrites). Both work by fences: a fence is a marker in the watcher's events, and
// its callback comes after the events of all that happened before it was drawn, and before those of
// all that happens after. So an event belongs to a side of a fence by when the change happened, not
// by when the event is delivered, and nothing has to be waited for. disregards() is called on the
// same thread as the fences, in order: its answer is final.
//
//     call:      disable() ......... waits for its turn ......... runs ............ returns
//     spans:     [ held ............)                        [ held )[ own )   [ own )
//                     refine() here: reports what it held         refine()
//
// The suspension is a plain switch: whoever turns it on first turns it on for all.
//
// An operation has spans, each with a fence at its begin and one at its end. An open span
// disregards the events of what it may write (its footprint), and remembers that there were some.
// Nobody knows at its begin whether it is a span of real writes: the first one begins when the
// operation is called, for an adapter that performs it at once. If the call is moved to another
// thread instead, or the adapter marks its steps, refine() voids the span: nothing was written in
// it, so what it held is reported. The order of refine() among the events does not matter, because
// all events since the begin of that span are another program's.
//
// Always reported: what is only polled, since nobody knows when it happened; and that the contents
// of the root are unknown, since what was lost may have happened after the end of the span. During
// a suspension the latter is reported at its end.
//
// Not told apart from own writes: changes by another program to a path of the footprint, between a
// span's begin and its end.

namespace quendo {

using platform::FolderEvent;

struct DetectionSwitch::SpanState {
    OwnWrites::Footprint footprint;
    bool isOver = false; // or void; it must not open any more
    bool holds = false;
    bool wasReplaced = false; // footprint.replacedOnce

    bool includes(const FolderEvent& event) {
        if (footprint.includes && !footprint.includes(event.path))
            return false;
        if (event.kind == FolderEvent::Kind::Appeared && event.path == footprint.replacedOnce)
            return !std::exchange(wasReplaced, true);
        return true;
    }
};

struct DetectionSwitch::OnFence {
    OnFence(std::weak_ptr<DetectionSwitch> detection, std::uint64_t ownNumber,
            UniqueFunction<void()> callback) noexcept
        : owner(std::move(detection)), number(ownNumber), reached(std::move(callback)) {}
    OnFence(OnFence&& other) noexcept
        : owner(std::exchange(other.owner, {})), number(other.number),
          reached(std::move(other.reached)) {}
    ~OnFence() { setOn(); }
    void operator()() {
        setOn();
        reached();
    }
    void setOn() noexcept {
        if (const auto detection = std::exchange(owner, {}).lock())
            detection->setOn(number);
    }

    std::weak_ptr<DetectionSwitch> owner;
    const std::uint64_t number;
    UniqueFunction<void()> reached;
};

struct DetectionSwitch::EndFence {
    EndFence(std::weak_ptr<DetectionSwitch> detection, std::shared_ptr<SpanState> ended) noexcept
        : owner(std::move(detection)), span(std::move(ended)) {}
    EndFence(EndFence&&) noexcept = default;
    ~EndFence() { (*this)(); }
    void operator()() noexcept {
        if (const auto ended = std::exchange(span, nullptr))
            if (const auto detection = owner.lock())
                detection->close(ended);
    }

    std::weak_ptr<DetectionSwitch> owner;
    std::shared_ptr<SpanState> span;
};

class DetectionSwitch::Writes final : public OwnWrites {
public:
    explicit Writes(std::weak_ptr<DetectionSwitch> owner) : m_owner(std::move(owner)) {}
    ~Writes() override { end(); }

    void begin(Footprint footprint) noexcept override {
        end();
        const auto owner = m_owner.lock();
        if (owner == nullptr)
            return;
        try {
            auto span = std::make_shared<SpanState>(SpanState{.footprint = std::move(footprint)});
            owner->m_watcher->fence([weak = m_owner, span] {
                if (const auto detection = weak.lock())
                    detection->open(span);
            });
            const std::lock_guard lock(owner->m_mutex);
            m_open = std::move(span);
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // what it writes is reported
        }
    }

    void end() noexcept override {
        const auto owner = m_owner.lock();
        auto span = take(owner.get());
        if (span == nullptr)
            return;
        try {
            owner->m_watcher->fence(EndFence(m_owner, std::move(span)));
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // the span has been closed
        }
    }

    void refine() noexcept override {
        const auto owner = m_owner.lock();
        if (const auto span = take(owner.get()))
            owner->voidSpan(span);
    }

private:
    std::shared_ptr<SpanState> take(DetectionSwitch* owner) noexcept {
        if (owner == nullptr)
            return nullptr;
        const std::lock_guard lock(owner->m_mutex);
        return std::exchange(m_open, nullptr);
    }

    const std::weak_ptr<DetectionSwitch> m_owner;
    std::shared_ptr<SpanState> m_open; // guarded by the owner's mutex
};

DetectionSwitch::DetectionSwitch(std::shared_ptr<platform::FolderWatcher> watcher, Path root,
                                 std::function<void()> missed)
    : m_watcher(std::move(watcher)), m_root(std::move(root)), m_missed(std::move(missed)) {}

bool DetectionSwitch::disregards(const FolderEvent& event) noexcept {
    const bool isLost = event.kind == FolderEvent::Kind::ContentsUnknown && event.path == m_root;
    const std::lock_guard lock(m_mutex);
    if (event.polled)
        return false;
    if (!m_isOn) {
        m_lostWhileOff |= isLost;
        return true;
    }
    bool isOwn = false;
    try {
        for (const auto& span : m_spans)
            if (!isLost && span->includes(event))
                isOwn = span->holds = true;
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION(); // of an adapter's footprint
        return false;
    }
    return isOwn;
}

void DetectionSwitch::turnOff() {
    m_watcher->fence([weak = weak_from_this(), number = nextNumber()] {
        if (const auto self = weak.lock()) {
            const std::lock_guard lock(self->m_mutex);
            if (number > self->m_onBy)
                self->m_isOn = false;
        }
    });
}

void DetectionSwitch::turnOn(UniqueFunction<void()> reached) {
    m_watcher->fence(OnFence(weak_from_this(), nextNumber(), std::move(reached)));
}

std::shared_ptr<OwnWrites> DetectionSwitch::makeOwnWrites() {
    auto writes = std::make_shared<Writes>(weak_from_this());
    writes->begin({});
    return writes;
}

std::uint64_t DetectionSwitch::nextNumber() {
    const std::lock_guard lock(m_mutex);
    return ++m_switches;
}

void DetectionSwitch::setOn(std::uint64_t number) noexcept {
    bool hasMissed = false;
    {
        const std::lock_guard lock(m_mutex);
        if (number <= m_onBy)
            return;
        m_onBy = number;
        m_isOn = true;
        hasMissed = std::exchange(m_lostWhileOff, false);
    }
    if (hasMissed)
        m_missed();
}

void DetectionSwitch::open(const std::shared_ptr<SpanState>& span) {
    const std::lock_guard lock(m_mutex);
    if (!span->isOver)
        m_spans.push_back(span);
}

void DetectionSwitch::close(const std::shared_ptr<SpanState>& span) noexcept {
    const std::lock_guard lock(m_mutex);
    span->isOver = true;
    m_spans.remove(span);
}

void DetectionSwitch::voidSpan(const std::shared_ptr<SpanState>& span) noexcept {
    close(span);
    bool hasMissed = false;
    {
        const std::lock_guard lock(m_mutex);
        hasMissed = span->holds;
    }
    if (hasMissed)
        m_missed();
}

} // namespace quendo
