#pragma once

#include "quendo/adapter/Revision.h"
#include "quendo/git/GitRunner.h"
#include "quendo/platform/Path.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quendo::git {

/// Reads what `git log` prints with arguments(), in pieces of any size. A revision is handed over
/// as soon as all of it has been read. Threads: used by one.
class GitLog {
public:
    using Receiver = std::function<void(std::unique_ptr<Revision>)>;

    enum class Paths {
        Constant, ///< every revision has the path of the newest one
        Followed, ///< the output is that of `--name-status` and tells of renames
    };

    /// `git log` and the options that fix its output.
    static std::vector<std::string> arguments();

    /// @param root that the printed paths are relative to
    /// @param path that of the newest revision
    GitLog(Path root, Path path, Paths paths, Receiver receive)
        : m_root(std::move(root)), m_path(std::move(path)), m_paths(paths),
          m_receive(std::move(receive)) {}

    /// What the receiver throws passes through. @throws exception::ToolError for anything that git
    /// does not print
    void feed(std::string_view text) {
        m_pieces.feed(text, [this](std::string_view piece) { take(piece); });
    }

    /// At the end of the output. @throws as feed()
    void finish();

private:
    /// What the next piece is; those of a record come in this order.
    enum class Part { ID, Parents, Author, Email, Date, Message, End, OldPath, NewPath };

    void take(std::string_view piece);
    void takeChange(std::string_view piece);
    void handOver();

    const Path m_root;
    Path m_path; ///< that of the next revision
    const Paths m_paths;
    const Receiver m_receive;
    NulSplitter m_pieces{"log"};
    Part m_part = Part::ID;
    std::unique_ptr<Revision> m_revision; ///< not handed over yet
    std::string m_oldPath;
};

} // namespace quendo::git
