#include "quendo/git/GitLog.h"

#include "quendo/git/GitFailure.h"
#include "quendo/git/GitText.h"

#include <algorithm>
#include <charconv>
#include <chrono>

namespace quendo::git {
namespace {

std::chrono::system_clock::time_point dateFrom(std::string_view text) {
    long long seconds = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), seconds).ec != std::errc())
        throwGarbage("log");
    // A clock of nanoseconds ends in 2262.
    constexpr auto latest = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::system_clock::duration::max());
    seconds = std::clamp<long long>(seconds, -latest.count(), latest.count());
    return std::chrono::system_clock::time_point(std::chrono::seconds(seconds));
}

} // namespace

std::vector<std::string> GitLog::arguments() {
    // Six fields, each ended by a NUL: names and messages hold every other byte.
    return {"log",
            "-z",
            "--no-show-signature",
            "--no-color",
            "--no-notes",
            "--no-mailmap",
            "--no-ext-diff",
            "--no-textconv",
            "--no-decorate",
            "--format=%H%x00%P%x00%an%x00%ae%x00%at%x00%B%x00"};
}

// After the fields comes an empty piece, which ends the record. With --name-status there may follow
// a newline with the kind of change, and the path or paths of it, as a piece each.
void GitLog::take(std::string_view piece) {
    switch (m_part) {
    case Part::ID:
        if (!isObjectName(piece))
            throwGarbage("log");
        m_revision = std::make_unique<Revision>();
        m_revision->id = toUString(piece);
        break;
    case Part::Parents:
        break;
    case Part::Author:
        m_revision->author = toUString(piece);
        break;
    case Part::Email:
        m_revision->authorEmail = toUString(piece);
        break;
    case Part::Date:
        m_revision->date = dateFrom(piece);
        break;
    case Part::Message:
        m_revision->message = toUString(withoutLineEnds(std::string(piece)));
        m_part = Part::End;
        if (m_paths == Paths::Constant)
            handOver();
        return;
    case Part::End:
        if (piece.empty())
            return;
        if (isObjectName(piece)) {
            handOver();
            m_part = Part::ID;
            return take(piece);
        }
        return takeChange(piece);
    case Part::OldPath:
        m_oldPath = piece;
        m_part = Part::NewPath;
        return;
    case Part::NewPath:
        // Of several changes, which only a folder has, the first counts.
        if (m_revision) {
            m_path = m_root.child(piece);
            handOver();
            if (!m_oldPath.empty())
                m_path = m_root.child(m_oldPath);
        }
        m_oldPath.clear();
        m_part = Part::End;
        return;
    }
    m_part = static_cast<Part>(static_cast<int>(m_part) + 1);
}

void GitLog::takeChange(std::string_view piece) {
    if (piece.starts_with('\n'))
        piece.remove_prefix(1);
    if (piece.empty() || piece.front() < 'A' || piece.front() > 'Z' ||
        piece.find_first_not_of("0123456789", 1) != std::string_view::npos)
        throwGarbage("log");
    m_part = piece.front() == 'R' || piece.front() == 'C' ? Part::OldPath : Part::NewPath;
}

void GitLog::handOver() {
    if (!m_revision)
        return;
    m_revision->path = m_path;
    m_receive(std::move(m_revision));
}

void GitLog::finish() {
    if (!m_pieces.rest().empty() || (m_part != Part::ID && m_part != Part::End))
        throwGarbage("log");
    handOver();
}

} // namespace quendo::git
