#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Path.h"
#include "quendo/platform/UString.h"

#include <chrono>
#include <memory>
#include <vector>

namespace quendo {

/// One revision of a file. Back ends may derive from it. Immutable once handed out.
class QUENDO_API Revision {
public:
    virtual ~Revision();

    /// What the back end calls the revision (a Git commit's full hash, an SVN number).
    UString id;
    UString author;
    UString authorEmail;
    UString message;                            ///< whole, lines separated by '\n'
    std::chrono::system_clock::time_point date; ///< when the change was authored

    /// Where the file was in this revision, absolute: it may have been renamed since.
    Path path;

    /// The back end's identifier of the file's content itself, when `id` does not lead to it: a
    /// side of a conflict. Empty otherwise.
    UString contentID;
};

/// The sides of a conflict; a side on which the file does not exist is null.
struct ConflictRevisions {
    std::unique_ptr<Revision> base;
    std::unique_ptr<Revision> ours;
    std::unique_ptr<Revision> theirs;
};

} // namespace quendo
