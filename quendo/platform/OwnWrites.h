#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <functional>
#include <memory>
#include <utility>

namespace quendo {

/// When one operation writes to the metadata of its working copy, so that change detection
/// disregards these writes and nothing else.
///
/// A call to an operation lasts longer than its writes: it may wait for its turn on an executor or
/// for another program's lock, and what other programs change meanwhile has to be reported. So
///
/// - whoever hides writes makes an OwnWrites (FolderExternalChangeDetector::disable()) and a Scope
///   on its thread; unless others refine it, the whole call counts as one span of writes;
/// - a layer that moves the call to another thread calls refine(), makes a Scope on that thread and
///   a Span around the call of the wrapped adapter (SingleThreadedCMAdapter does);
/// - an adapter that knows when it writes calls refine() and makes a Span around each such step.
///
/// Threads: any, for one operation one at a time. Nothing here waits or throws.
class QUENDO_API OwnWrites {
public:
    /// What a span of writes may change.
    struct Footprint {
        /// Decides by the text of an absolute path; null for everything. Called on any thread,
        /// under a lock: it must be quick.
        std::function<bool(const Path&)> includes = nullptr;
        /// A file that the span replaces once at most, or empty: a second replacement is not ours.
        Path replacedOnce = {};
    };

    virtual ~OwnWrites();

    /// From now on the operation may write. Ends the span that was open.
    virtual void begin(Footprint footprint) noexcept = 0;
    /// The operation has written what it wanted; nothing when no span is open.
    virtual void end() noexcept = 0;
    /// The open span, if there is one, was none of writes: what changed since it began is reported,
    /// and so is what changes until the next one begins.
    virtual void refine() noexcept = 0;

    /// That of the operation which this thread performs; null when there is none.
    static std::shared_ptr<OwnWrites> current() noexcept;

    /// `operation`, to be called on another thread for the operation that this thread performs.
    /// Until it is called, the operation waits and writes nothing.
    template <class Operation>
    static auto handOver(Operation operation);

    /// While it lives, this thread performs the operation of `writes`, or none when that is null.
    class QUENDO_API Scope {
    public:
        explicit Scope(std::shared_ptr<OwnWrites> writes) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        const std::shared_ptr<OwnWrites> m_writes;
        const std::shared_ptr<OwnWrites>* const m_outer;
    };

    /// While it lives, the operation of this thread writes.
    class QUENDO_API Span {
    public:
        Span() noexcept : Span(Footprint()) {}
        explicit Span(Footprint footprint) noexcept;
        ~Span();
        Span(const Span&) = delete;
        Span& operator=(const Span&) = delete;

        /// What should have been written was not: what has changed nevertheless is reported.
        void fail() noexcept;

    private:
        const std::shared_ptr<OwnWrites> m_writes;
    };
};

template <class Operation>
auto OwnWrites::handOver(Operation operation) {
    auto writes = current();
    if (writes != nullptr)
        writes->refine();
    return [writes = std::move(writes), operation = std::move(operation)]() mutable {
        const Scope scope(writes);
        const Span span;
        return operation();
    };
}

} // namespace quendo
