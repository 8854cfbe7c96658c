#include "host/CheckinCommands.h"

#include "host/ActionTargets.h"
#include "host/HostError.h"
#include "host/RevisionPrinter.h"
#include "host/Session.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "quendo/exception/SourceControlException.h"
#include "quendo/platform/UString.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <set>
#include <system_error>
#include <unistd.h>

namespace quendo::host {
namespace {

constexpr std::size_t largestMessage = 16U << 20U;

/// The whole of a file, or of standard input for "-".
std::string contentOf(const std::string& name) {
    const bool isInput = name == "-";
    const auto fail = [&](const std::string& why) {
        throw HostError("cannot read the message from " +
                        (isInput ? "standard input" : visiblePath(name)) + ": " + why);
    };
    struct File {
        ~File() {
            if (number > STDERR_FILENO)
                ::close(number);
        }
        const int number;
    } file{isInput ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC)};
    std::string content;
    char bytes[65536];
    for (ssize_t count = 1; file.number >= 0 && count > 0;) {
        count = ::read(file.number, bytes, sizeof bytes);
        if (count < 0 && errno == EINTR)
            count = 1;
        else if (count < 0)
            fail(std::generic_category().message(errno));
        else
            content.append(bytes, static_cast<std::size_t>(count));
        if (content.size() > largestMessage)
            fail("it is too long");
    }
    if (file.number < 0)
        fail(std::generic_category().message(errno));
    return content;
}

/// Names the first few.
std::string namesOf(const std::vector<Path>& files, const Path& root) {
    constexpr std::size_t most = 3;
    const auto current = currentFolder();
    std::string names;
    for (std::size_t i = 0; i < std::min(files.size(), most); ++i)
        names += (i == 0 ? "" : ", ") + nameFrom(current, root, files[i]);
    return files.size() > most ? names + " and " + std::to_string(files.size() - most) + " more"
                               : names;
}

/// Says of files with other content in the index than on disk that the check-in replaces it.
/// @throws HostError when somebody may have chosen that content and did not allow it: what is
///         staged of a file that the last commit holds, or of one that has gone from the disk.
void warnOfStaged(const ActionTargets& targets, const ActionTargets::States& states,
                  bool replaceStaged, Session& session) {
    std::vector<Path> chosen, added;
    for (const auto& [path, state] : states) {
        const auto* columns = state.findProperty(property::columns);
        if (columns == nullptr || columns->size() != 2 || state.isFolder() ||
            state.getState() == LocalStatus::Conflicted)
            continue;
        const auto staged = columns->front(), onDisk = columns->back();
        if (staged == u'.' || onDisk == u'.' || isUntracked(state))
            continue;
        (staged == u'A' && onDisk != u'D' ? added : chosen).push_back(path);
    }
    const auto& root = targets.copy.root;
    if (!chosen.empty() && !replaceStaged)
        throw HostError("the staged content differs from the disk: " + namesOf(chosen, root) +
                        "; checkin would commit what is on disk and lose what is staged: add "
                        "--replace-staged to do so, or commit what is staged with git commit");
    if (!chosen.empty())
        session.note("committing as on disk, in place of what is staged: " + namesOf(chosen, root));
    if (!added.empty())
        session.note("committing as on disk, changed since added: " + namesOf(added, root));
}

/// The short identifier of the commit that was just made.
std::string newRevision(const ActionTargets& targets, const Path& file) {
    try {
        return shortID(*targets.copy.adapter().findRevision(file, u"HEAD"));
    } catch (const exception::SourceControlException&) {
        return {}; // it has been made all the same
    }
}

} // namespace

CLI::App* CheckinCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("checkin", "Commit files as they are on disk");
    app->add_option("-m,--message", message, "What was changed")->option_text("MESSAGE");
    app->add_option("-F,--file", messageFile, "Read the message from FILE; - for standard input")
        ->option_text("FILE");
    app->add_flag("--replace-staged", replaceStaged,
                  "Commit files as on disk also where other content is staged");
    app->add_option("PATH", paths, "Files, or folders for all that is tracked in them")->required();
    app->footer(
        "Nothing else is checked in, whatever is staged. A file that is untracked is added\n"
        "when it is named itself. A file with other content staged than on disk is refused\n"
        "unless --replace-staged is given or the file is new: what is staged would be lost.\n"
        "Examples:\n"
        "  quendo checkin -m 'Mend the lock' lock.c lock.h\n"
        "  quendo checkin -F message.txt .     all that is tracked below this folder");
    app->final_callback([this] {
        if (message.has_value() == messageFile.has_value())
            throw CLI::ValidationError(message ? "-m and -F cannot go together"
                                               : "a message is required: -m MESSAGE or -F FILE");
    });
    return app;
}

void CheckinCommand::run() const {
    const auto text = message ? *message : contentOf(*messageFile);
    const auto converted = toUString(text);
    if (toUtf8(converted) != text || text.find('\0') != text.npos)
        throw HostError("the message is not text in UTF-8");
    const auto targets = ActionTargets::ofPaths(paths);
    Session session(targets.copy.interactor());
    const auto states = targets.states();
    const std::set<Path> named(targets.paths.begin(), targets.paths.end());
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const auto found = states.find(targets.paths[i]);
        if (found != states.end() && found->second.isFolder() && isUntracked(found->second))
            throw HostError(visiblePath(paths[i]) +
                            " holds nothing that is under source control; add it first");
    }
    auto files = pathsWhere(states, isChanged);
    for (const auto& path : named)
        if (const auto found = states.find(path);
            found != states.end() && isUntracked(found->second))
            files.push_back(path);
    warnOfStaged(targets, states, replaceStaged, session);
    targets.copy.adapter().checkin({named.begin(), named.end()}, converted);
    const auto revision = files.empty() ? std::string() : newRevision(targets, files.front());
    session.finish("checked in " + countOf(files.size()) +
                   (revision.empty() ? "" : " as " + revision) + "\n");
}

CLI::App* ResolveCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("resolve", "Mark files in conflict as resolved");
    app->add_option("FILE", files, "The files, as they are to be")->required();
    app->footer("A file that still holds conflict markers is refused; one that was deleted is\n"
                "resolved by its deletion.\n"
                "Examples:\n"
                "  quendo resolve main.c               when main.c has been edited");
    return app;
}

void ResolveCommand::run() const {
    const auto targets = ActionTargets::ofFiles(files);
    Session session(targets.copy.interactor());
    const auto states = targets.states();
    std::set<Path> unique;
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (const auto found = states.find(targets.paths[i]);
            found == states.end() || found->second.getState() != LocalStatus::Conflicted)
            throw HostError(visiblePath(files[i]) + " is not in conflict");
        unique.insert(targets.paths[i]);
    }
    std::size_t resolved = 0;
    try {
        for (const auto& path : unique) {
            targets.copy.adapter().resolveConflict(path);
            ++resolved;
        }
    } catch (const std::exception& error) {
        if (resolved == 0)
            throw;
        throw HostError(std::string(error.what()) + " (" + countOf(resolved) +
                        " before it resolved)");
    }
    session.finish("resolved " + countOf(unique.size()) + "\n");
}

} // namespace quendo::host
