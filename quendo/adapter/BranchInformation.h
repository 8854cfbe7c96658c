#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/UString.h"

#include <cstddef>
#include <optional>

namespace quendo {

/// What was begun in a working copy and waits to be continued or given up. Of two at once the one
/// that the other is a part of, as a pick is of a rebase; a bisection only when nothing else is.
enum class OngoingOperation {
    None,
    Merge,
    Rebase,
    CherryPick,
    Revert,
    Bisect,
    ApplyMailbox, ///< patches from a mailbox ("git am")
};

/// What a working copy is on. Names are for people: a byte that is no UTF-8 is shown as U+FFFD.
struct BranchState {
    struct Divergence {
        std::size_t ahead = 0;  ///< commits of the branch that its upstream lacks
        std::size_t behind = 0; ///< commits of the upstream that the branch lacks
        friend bool operator==(const Divergence&, const Divergence&) = default;
    };
    struct Progress {
        std::size_t step = 0; ///< the one under way, from 1
        std::size_t steps = 0;
        friend bool operator==(const Progress&, const Progress&) = default;
    };

    /// The current branch, as people call it ("main", "topic/one"), also before its first commit.
    /// Empty while none is checked out: see operationBranch then.
    UString branch;

    /// The current commit; empty before the first one.
    UString commit;

    /// The branch that `branch` follows ("origin/main"; one of the same repository by its own
    /// name). Empty when it follows none, or one that the repository keeps no copy of.
    UString upstream;

    /// The upstream is configured, but there is no such branch.
    bool isUpstreamGone = false;

    /// Absent without an upstream, when that is gone, and before the first commit.
    std::optional<Divergence> divergence;

    OngoingOperation operation = OngoingOperation::None;

    /// The branch that a rebase works on, or that a bisection started from: the one to show while
    /// `branch` is empty. Empty when there was none, and for other operations.
    UString operationBranch;

    /// How far a rebase is, or the applying of a mailbox, if that is known.
    std::optional<Progress> progress;

    friend bool operator==(const BranchState&, const BranchState&) = default;
};

/// Tells what a working copy is on. A subsystem of an adapter that offers it:
///
///     auto* const* branches = std::any_cast<BranchInformation*>(&subsystem);
///
/// with the subsystem that CMAdapter::getSubsystem(typeid(BranchInformation)) gives. It belongs to
/// the adapter and lives as long.
///
/// Threads: any, beside every other operation; it waits for no turn on the source-control executor.
/// The interactor's termination signal ends a call.
class QUENDO_API BranchInformation {
public:
    virtual ~BranchInformation();

    /// All of it as it was at one moment, unless others change it again and again while it is read.
    /// Reads only, and asks no server: the upstream is what was fetched last. The time it takes
    /// grows with the number of commits by which branch and upstream differ.
    ///
    /// May have changed after each status trigger, and after each operation of the same adapter
    /// that changed something: its own operations give no trigger, but raise the signals of
    /// EventBroadcastingCMAdapter. A managed folder's BranchStateCache follows both.
    /// @throws exception::SourceControlException and its family (AdapterErrors.h)
    virtual BranchState getBranchState() const = 0;
};

} // namespace quendo
