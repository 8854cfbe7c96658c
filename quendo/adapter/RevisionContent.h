#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <cstddef>
#include <optional>
#include <string>

namespace quendo {

/// Gives a file's content as it was, in memory: for diffs and for marks beside the text. A
/// subsystem of an adapter that offers it, see CMAdapter::getSubsystem; it belongs to the adapter
/// and lives as long.
///
/// The content is in bytes, as a checkout would write it, with filters and line ends as
/// CMAdapter::exportRevision has them; that of a symbolic link is its target. `file` is taken as it
/// is: one that had another name in that revision does not exist there under this one. Nothing is
/// written, not even for a while.
///
/// Errors, exception::OperationFailedError unless said otherwise (AdapterErrors.h):
/// - a path outside the working copy or in the metadata, a folder, a submodule;
/// - content of more than `limit` bytes, as it is kept or as a checkout would write it;
/// - a filter that only the repository itself names: it is not run, and the error names it;
/// - content that a partial clone does not hold: hosts ask for marks in the background, so nothing
///   is fetched for them. CMAdapter::exportRevision fetches.
///
/// Threads: any, beside every other operation; it waits for no turn on the source-control executor.
/// The interactor's termination signal ends a call.
class QUENDO_API RevisionContent {
public:
    virtual ~RevisionContent();

    /// The file's content in a revision, or nothing if it does not exist there.
    /// @param revision any name that the back end understands ("HEAD", a commit's hash); one that
    ///        it does not, HEAD before the first commit included, is an error
    virtual std::optional<std::string> getContent(const Path& file, const UString& revision,
                                                  std::size_t limit) const = 0;

    /// The content that the next commit would hold, or nothing if that would not hold the file. A
    /// conflicted file has none yet, which is an error; CMAdapter::getConflictRevisions gives its
    /// sides.
    virtual std::optional<std::string> getStagedContent(const Path& file,
                                                        std::size_t limit) const = 0;
};

} // namespace quendo
