#pragma once

#include "quendo/adapter/Revision.h"
#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

namespace quendo {

/// Which part of a history is wanted.
struct RevisionQuery {
    /// The newest revision wanted, included; the current one when null. Only what led to it is
    /// read. When it names a path (Revision::path), the history is that path's. Not owned.
    const Revision* from = nullptr;

    /// At most this many, if set.
    std::optional<std::size_t> limit = std::nullopt;

    /// Whether a file is followed back through its renames. Has no effect on folders.
    bool followRenames = true;
};

/// Reads history piece by piece, so that the first revisions can be shown while the rest is being
/// found, and a part of a long history costs no more than that part. A subsystem of an adapter that
/// offers it, see CMAdapter::getSubsystem; it belongs to the adapter and lives as long.
///
/// Threads: any, beside every other operation; it waits for no turn on the source-control executor.
/// `receive` is called on the calling thread. The interactor's termination signal ends a call.
class QUENDO_API RevisionHistory {
public:
    virtual ~RevisionHistory();

    /// Hands over the revisions that changed `path`, newest first, each as soon as the back end
    /// reports it.
    ///
    /// @param path a file, existing or not; a folder, for all that is below it; or the root, for
    ///        the whole working copy. Each Revision::path is that of the file in this revision; for
    ///        a folder it is `path`.
    /// @param receive takes one revision, never null, and returns whether more are wanted; if not,
    ///        the back end is stopped at once. It may take its time: the back end waits for it.
    ///        What it throws ends the call and is thrown by it.
    ///
    /// A history without a revision is no error.
    /// @throws exception::SourceControlException and its family (AdapterErrors.h), maybe after some
    ///         revisions were handed over
    virtual void
    readRevisions(const Path& path, const RevisionQuery& query,
                  const std::function<bool(std::unique_ptr<Revision>)>& receive) const = 0;
};

} // namespace quendo
