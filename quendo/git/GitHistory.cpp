#include "quendo/git/GitHistory.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/git/FilterDrivers.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitText.h"
#include "quendo/git/LazyFetch.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SmallFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::git {
namespace {

// A repository may ask for any number of comparisons.
constexpr const char* renameLimit = "-l1000";

// Content of more than this part of what may be held in memory is handed over in pieces if
// possible.
constexpr std::uint64_t partInPieces = 16;

/// Thrown where git's output is taken, to stop git when no more is wanted.
struct Enough {};

/// A file that is there whole under its name, or not at all.
class NewFile {
public:
    NewFile(const Path& target, bool executable) : m_target(target.toNative()) {
        static std::atomic<unsigned> counter{0};
        const auto start = m_target.substr(0, m_target.rfind('/') + 1) + ".quendo-" +
                           std::to_string(::getpid()) + "-";
        // The mode is given here, for the kernel to mask: to ask for the umask is to set it, for
        // every thread of the process.
        do {
            m_name = start + std::to_string(++counter);
            m_file = FileDescriptor(::open(m_name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC,
                                           executable ? 0777 : 0666));
        } while (!m_file && errno == EEXIST);
        if (!m_file) {
            const int error = errno;
            m_name.clear();
            fail(error);
        }
    }
    ~NewFile() {
        if (!m_name.empty())
            ::unlink(m_name.c_str());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    int descriptor() const { return m_file.get(); }

    std::string content() const {
        return readSmallFile(m_name, 1024 * 1024).value_or(std::string());
    }

    void becomeLink(const std::string& to) {
        ::unlink(m_name.c_str());
        if (::symlink(to.c_str(), m_name.c_str()) != 0)
            fail(errno);
    }

    /// Takes its name. Never over something that is there.
    void commit() {
        if (::renameat2(AT_FDCWD, m_name.c_str(), AT_FDCWD, m_target.c_str(), RENAME_NOREPLACE) !=
            0) {
            // A file system without that flag has hard links.
            if (errno != EINVAL || ::link(m_name.c_str(), m_target.c_str()) != 0)
                fail(errno);
            ::unlink(m_name.c_str());
        }
        m_name.clear();
    }

private:
    [[noreturn]] void fail(int error) const {
        throw exception::OperationFailedError(Path::fromNative(m_target).toUtf8() +
                                              " cannot be written: " + std::strerror(error));
    }

    std::string m_target;
    std::string m_name; ///< of the unfinished file; empty when there is none
    FileDescriptor m_file;
};

} // namespace

std::string GitHistory::relative(const Path& file) const {
    auto relative = m_git.repository().relative(file);
    if (!relative || relative->empty())
        throw exception::OperationFailedError(file.toUtf8() +
                                              " is not a file of the working copy " +
                                              m_git.repository().rootPath().toUtf8());
    return *relative;
}

std::string GitHistory::resolve(std::string_view name, std::string_view shown) {
    // First what the name means, then the commit that it leads to: "^{commit}" behind ":/text"
    // would be a part of the text.
    std::string object(name);
    if (name.starts_with('^') ||
        name.find_first_of(std::string_view("\0\n", 2)) != std::string_view::npos)
        object.clear();
    for (const char* peeled : {"", "^{commit}"}) {
        if (object.empty())
            break;
        std::string output;
        GitRun run{
            .arguments = {"rev-parse", "--verify", "--quiet", "--end-of-options", object + peeled}};
        run.consume = [&](std::string_view text) { output += text; };
        const auto result = m_git.run({run}).front();
        if (result.exitCode == 128 && !result.errors.empty())
            throwGitFailure(m_git.repository().root(), "rev-parse", result);
        object = result.exitCode == 0 ? withoutLineEnds(output) : std::string();
        if (!object.empty() && !isObjectName(object))
            throwGarbage("rev-parse");
    }
    if (object.empty())
        throw exception::OperationFailedError("there is no revision '" + std::string(shown) +
                                              "' in " + m_git.repository().rootPath().toUtf8());
    return object;
}

bool GitHistory::hasCommits() {
    const auto result =
        m_git.run({GitRun{.arguments = {"rev-parse", "--verify", "--quiet", "HEAD^{commit}"}}})
            .front();
    if (result.exitCode == 128 && !result.errors.empty())
        throwGitFailure(m_git.repository().root(), "rev-parse", result);
    return result.exitCode == 0;
}

// Only one file's renames can be followed; git refuses a folder's.
bool GitHistory::isFollowed(const Path& file) const {
    struct stat status;
    return ::lstat(file.toNative().c_str(), &status) != 0 || !S_ISDIR(status.st_mode);
}

void GitHistory::read(const Path& path, const RevisionQuery& query,
                      const std::function<bool(std::unique_ptr<Revision>)>& receive) {
    checkedMetadata();
    const auto& repository = m_git.repository();
    const bool isRoot = repository.relative(path) == "";
    const bool hasOwnPath = query.from != nullptr && !query.from->path.empty() && !isRoot;
    const Path newest = isRoot ? repository.rootPath() : hasOwnPath ? query.from->path : path;
    const auto spec = isRoot ? std::string() : pathspec(relative(newest));
    const auto start =
        query.from == nullptr ? "HEAD" : resolve(toUtf8(query.from->id), toUtf8(query.from->id));
    const bool follows = query.followRenames && isFollowed(path);
    if (query.limit == 0)
        return;

    auto arguments = GitLog::arguments();
    if (follows)
        arguments.insert(arguments.end(), {"--name-status", "--follow", renameLimit});
    else
        arguments.insert(arguments.end(), {"--no-patch", "--no-follow"});
    if (query.limit)
        arguments.push_back("--max-count=" + std::to_string(*query.limit));
    arguments.insert(arguments.end(), {"--end-of-options", start, "--"});
    if (!isRoot)
        arguments.push_back(spec);

    bool hasAny = false;
    GitLog log(repository.rootPath(), newest,
               follows ? GitLog::Paths::Followed : GitLog::Paths::Constant,
               [&](std::unique_ptr<Revision> revision) {
                   hasAny = true;
                   if (!receive(std::move(revision)))
                       throw Enough();
               });
    GitRun run{.arguments = std::move(arguments), .limitOutput = false};
    run.consume = [&](std::string_view text) { log.feed(text); };
    try {
        const auto result = m_git.run({run}).front();
        if (result.exitCode != 0) {
            if (!hasAny && query.from == nullptr && !hasCommits())
                return;
            throwGitFailure(repository.root(), "log", result);
        }
        log.finish();
    } catch (const Enough&) {
        // Git has been ended.
    }
}

std::vector<std::unique_ptr<Revision>> GitHistory::list(const Path& file, const Revision* from) {
    relative(file); // the root is refused
    std::vector<std::unique_ptr<Revision>> revisions;
    read(file, {.from = from}, [&](std::unique_ptr<Revision> revision) {
        revisions.push_back(std::move(revision));
        return true;
    });
    return revisions;
}

std::unique_ptr<Revision> GitHistory::describe(const std::string& commit, const Path& file) {
    std::unique_ptr<Revision> found;
    GitLog log(m_git.repository().rootPath(), file, GitLog::Paths::Constant,
               [&](std::unique_ptr<Revision> revision) { found = std::move(revision); });
    auto arguments = GitLog::arguments();
    arguments.insert(arguments.end(), {"--no-walk", "--no-patch", "--end-of-options", commit});
    log.feed(m_git.read({.arguments = std::move(arguments)}));
    log.finish();
    if (!found)
        throwGarbage("log");
    return found;
}

std::unique_ptr<Revision> GitHistory::find(const Path& file, const UString& id) {
    checkedMetadata();
    relative(file);
    const auto name = toUtf8(id);
    return describe(resolve(name, name), file);
}

std::unique_ptr<Revision> GitHistory::current(const Path& file) {
    relative(file);
    std::unique_ptr<Revision> newest;
    read(file, {.limit = 1}, [&](std::unique_ptr<Revision> revision) {
        newest = std::move(revision);
        return true;
    });
    return newest;
}

std::vector<std::unique_ptr<Revision>> GitHistory::parentsOf(const Revision& revision) {
    checkedMetadata();
    const auto name = toUtf8(revision.id);
    const auto commit = resolve(name, name);
    // "<commit> <parent> <parent>\n"
    auto line = withoutLineEnds(m_git.read(
        {.arguments = {"rev-list", "--parents", "-n", "1", "--end-of-options", commit}}));
    std::vector<std::unique_ptr<Revision>> parents;
    for (auto space = line.find(' '); space != std::string::npos;) {
        const auto next = line.find(' ', space + 1);
        const auto parent = line.substr(space + 1, next - space - 1);
        space = next;
        if (!isObjectName(parent))
            throwGarbage("rev-list");
        Path path = revision.path;
        if (!path.empty()) {
            const auto spec = relative(path);
            std::vector<std::string> parts;
            NulSplitter("diff-tree")
                .feed(m_git.read({.arguments = {"diff-tree", "-r", "-z", "-M", renameLimit,
                                                "--diff-filter=R", "--name-status",
                                                "--end-of-options", parent, commit}}),
                      [&](std::string_view part) { parts.emplace_back(part); });
            for (std::size_t i = 0; i + 2 < parts.size(); i += 3)
                if (parts[i + 2] == spec)
                    path = m_git.repository().rootPath().child(parts[i + 1]);
        }
        parents.push_back(describe(parent, path));
    }
    return parents;
}

void GitHistory::exportTo(const Path& target, const Path& file, const Revision& revision) {
    checkedMetadata();
    struct stat status;
    if (!target.isAbsolute())
        throw exception::OperationFailedError("the target '" + target.toUtf8() +
                                              "' must be an absolute path");
    if (::lstat(target.toNative().c_str(), &status) == 0)
        throw exception::OperationFailedError(target.toUtf8() +
                                              " exists already; remove it or choose another name");

    const auto path = relative(revision.path.empty() ? file : revision.path);
    const auto shown = toUtf8(revision.id);
    std::optional<Entry> entry;
    if (revision.contentID.empty()) {
        const auto commit = resolve(shown, shown);
        entry = entryIn(commit, path);
        if (!entry) {
            // It may have had another name then.
            for (const auto& one : list(file, nullptr))
                if (toUtf8(one->id) == commit)
                    entry = entryIn(commit, relative(one->path));
        }
        if (!entry)
            throw exception::OperationFailedError(file.toUtf8() + " does not exist in revision " +
                                                  shown);
        if (!entry->isFile())
            throw exception::OperationFailedError(file.toUtf8() + " is not a file in revision " +
                                                  shown + "; export files one by one");
    } else {
        entry = Entry{"100644", toUtf8(revision.contentID), path};
        if (!isObjectName(entry->object))
            throwGarbage("ls-tree");
        const auto staged = m_git.read(
            {.arguments = {"ls-files", "-z", "-s", "--full-name", "--", pathspec(path)}});
        NulSplitter("ls-files").feed(staged, [&](std::string_view line) {
            if (line.find(entry->object) != std::string_view::npos)
                entry->mode = line.substr(0, 6);
        });
    }

    NewFile output(target, entry->mode == "100755");
    printContent(*entry, file, sizeOf(*entry),
                 {.arguments = {}, .outputFile = output.descriptor()});
    if (entry->isLink())
        output.becomeLink(output.content());
    output.commit();
}

template <class Work>
auto GitHistory::sayingWhatIsNotHere(const Path& file, Work&& work) {
    try {
        return work();
    } catch (const exception::SourceControlException& error) {
        // git's own words, which follow the root and depend on git's version. A refusal of ours is
        // not looked at: it names the file or the revision, which may be called like anything.
        constexpr std::string_view signs[] = {
            "promisor",           "unable to read", "could not get object",
            "Not a valid object", "bad object",     "missing"};
        const std::string_view text = error.what();
        const auto root = m_git.repository().rootPath().toUtf8();
        const auto at = text.find(root);
        const bool isGits = text.starts_with("git ") || text.starts_with(root + " ");
        const auto words = isGits && at != std::string_view::npos ? text.substr(at + root.size())
                                                                  : std::string_view();
        if (std::ranges::none_of(
                signs, [&](auto sign) { return words.find(sign) != std::string_view::npos; }) ||
            !LazyFetch::of(m_git, nullptr))
            throw;
        throw exception::OperationFailedError(
            file.toUtf8() + " is not in this partial clone as it was then, and nothing is fetched "
                            "for this; export that revision to have it fetched");
    }
}

std::optional<std::string> GitHistory::content(const Path& file, const UString& revision,
                                               std::size_t limit) {
    checkedMetadata();
    const auto path = relative(file);
    const auto name = toUtf8(revision);
    return sayingWhatIsNotHere(file, [&]() -> std::optional<std::string> {
        const auto entry = entryIn(resolve(name, name), path);
        return entry ? std::optional(contentOf(*entry, file, " in revision " + name, limit))
                     : std::nullopt;
    });
}

std::optional<std::string> GitHistory::stagedContent(const Path& file, std::size_t limit) {
    checkedMetadata();
    return sayingWhatIsNotHere(file, [&]() -> std::optional<std::string> {
        const auto entry = stagedEntry(file);
        return entry ? std::optional(contentOf(*entry, file, " as it is staged", limit))
                     : std::nullopt;
    });
}

std::optional<GitHistory::Entry> GitHistory::entryIn(const std::string& commit,
                                                     const std::string& path) {
    // "<mode> <type> <object>\t<path>\0"; --full-tree, as git may run in another folder.
    const auto line = m_git.read(
        {.arguments = {"ls-tree", "-z", "--full-tree", "--end-of-options", commit, "--", path}});
    if (line.empty())
        return std::nullopt;
    const auto tab = line.find('\t');
    const auto object = line.rfind(' ', tab);
    if (tab == std::string::npos || object == std::string::npos ||
        !isObjectName(std::string_view(line).substr(object + 1, tab - object - 1)))
        throwGarbage("ls-tree");
    return Entry{line.substr(0, 6), line.substr(object + 1, tab - object - 1), path};
}

std::optional<GitHistory::Entry> GitHistory::stagedEntry(const Path& file) {
    const auto path = relative(file);
    std::optional<Entry> found;
    NulSplitter("ls-files")
        .feed(m_git.read(
                  {.arguments = {"ls-files", "-z", "-s", "--full-name", "--", pathspec(path)}}),
              [&](std::string_view line) {
                  // "<mode> <object> <stage>\t<path>"
                  const auto tab = line.find('\t');
                  if (tab == std::string_view::npos || tab < 10 ||
                      !isObjectName(line.substr(7, tab - 9)))
                      throwGarbage("ls-files");
                  if (line.substr(tab + 1) != path)
                      throw exception::OperationFailedError(
                          file.toUtf8() + " is a folder; only files have content");
                  if (line[tab - 1] != '0')
                      throw exception::OperationFailedError(
                          file.toUtf8() + " is conflicted, so no version of it is staged");
                  found = Entry{std::string(line.substr(0, 6)),
                                std::string(line.substr(7, tab - 9)), path};
              });
    return found;
}

std::string GitHistory::contentOf(const Entry& entry, const Path& file, const std::string& where,
                                  std::size_t limit) {
    if (!entry.isFile())
        throw exception::OperationFailedError(file.toUtf8() + " is a " +
                                              (entry.mode == "160000" ? "submodule" : "folder") +
                                              where + "; only files have content");
    const auto refuse = [&](const std::string& size) {
        throw exception::OperationFailedError(file.toUtf8() + " has " + size + " bytes" + where +
                                              ", and " + std::to_string(limit) +
                                              " is the limit for content in memory");
    };
    // Before git loads it.
    const auto kept = sizeOf(entry);
    if (kept > limit)
        refuse(std::to_string(kept));
    std::string content;
    printContent(entry, file, kept, {.arguments = {}, .consume = [&](std::string_view text) {
                                         if (text.size() > limit - content.size())
                                             refuse("more than " + std::to_string(limit));
                                         content += text;
                                     }});
    return content;
}

std::uint64_t GitHistory::sizeOf(const Entry& entry) {
    const auto text = m_git.read({.arguments = {"cat-file", "-s", entry.object}});
    std::uint64_t size = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), size).ec != std::errc())
        throwGarbage("cat-file");
    return size;
}

/// Whether git changes this content when it checks it out. Its attributes are asked for already.
bool GitHistory::isConverted(const std::map<std::string, std::string>& attributes) {
    const auto is = [&](const char* name, std::initializer_list<std::string_view> values) {
        const auto found = attributes.find(name);
        return found == attributes.end() ||
               std::ranges::find(values, found->second) != values.end();
    };
    for (const char* name : {"filter", "ident", "working-tree-encoding"})
        if (!is(name, {"unspecified", "unset"}))
            return true;
    if (is("text", {"unset"}))
        return false;
    for (const char* name : {"text", "crlf", "eol"})
        if (!is(name, {"unspecified"}))
            return true;
    constexpr int isNotSet = 1;
    const auto converts =
        withoutLineEnds(m_git.read({.arguments = {"config", "--get", "core.autocrlf"}}, isNotSet));
    return !converts.empty() && converts != "false" && converts != "input";
}

/// @param file for errors
/// @param size of the content as it is kept
/// @param run where the content goes; its arguments are set here
void GitHistory::printContent(const Entry& entry, const Path& file, std::uint64_t size,
                              GitRun run) {
    const auto& options = m_git.options();
    run.holdsContent = true;
    run.limitOutput = false;
    run.contentSize = size;
    // git hands over what it need not change in pieces, but it keeps the whole of everything that
    // passes a filter or a conversion.
    bool isWhole = true;
    if (entry.isLink()) {
        constexpr std::uint64_t longestLink = 64 * 1024;
        if (size > longestLink)
            throw exception::OperationFailedError(
                file.toUtf8() + " is a symbolic link of " + std::to_string(size) +
                " bytes there, which none can be; look for a damaged commit with git fsck");
        run.arguments = {"cat-file", "blob", entry.object};
    } else {
        auto drivers = FilterDrivers::read(m_git);
        const auto ofRepository = drivers.withoutSmudge;
        // A host asks for content in memory in the background; to export it is a user's wish.
        const auto suspended =
            run.outputFile < 0 ? m_git.suspended(drivers.ofUser) : std::set<std::string>();
        drivers.suspend(suspended);
        drivers.checkSize();
        m_git.setOverrides(drivers.overrides);
        m_git.bePatient(drivers.ofUser);
        const bool isLarge = size > options.contentMemoryLimit / partInPieces;
        if (isLarge || !drivers.withoutSmudge.empty()) {
            std::vector<std::string> parts;
            NulSplitter("check-attr")
                .feed(m_git.read({.arguments = {"check-attr", "-z", "--stdin", "filter", "ident",
                                                "working-tree-encoding", "text", "crlf", "eol"},
                                  .input = pathspec(entry.path) + '\0'}),
                      [&](std::string_view part) { parts.emplace_back(part); });
            std::map<std::string, std::string> attributes;
            for (std::size_t i = 0; i + 2 < parts.size(); i += 3)
                attributes[parts[i + 1]] = parts[i + 2];
            const auto filter = attributes["filter"];
            const auto name = file.toUtf8() + " needs the filter '" + toUtf8(toUString(filter));
            if (ofRepository.contains(filter))
                throw exception::OperationFailedError(
                    name + "', which only the repository itself names; if you trust it, put it "
                           "into your own configuration with git config --global");
            if (suspended.contains(filter))
                throw exception::OperationFailedError(
                    name + "' of your configuration, which did not come to an end here and is not "
                           "run for a while; export the file to try it again");
            isWhole = !isLarge || isConverted(attributes);
        }
        if (isWhole) {
            run.arguments = {"cat-file", "--filters", "--path=" + entry.path, entry.object};
        } else {
            drivers.overrides.push_back({"core.bigFileThreshold", "16m"});
            m_git.setOverrides(drivers.overrides);
            run.arguments = {"cat-file", "blob", entry.object};
        }
    }
    const auto result = m_git.run({run}).front();
    if (ranOutOfMemory(result))
        throw exception::OperationFailedError(
            file.toUtf8() + " with " + std::to_string(size) +
            " bytes takes more memory than a git that reads may use" +
            (isWhole ? ": it passes a filter or a conversion of line ends, which git does in memory"
                     : "") +
            "; check the revision out with git to have it");
    if (result.exitCode != 0)
        throwGitFailure(m_git.repository().root(), "cat-file", result);
}

ConflictRevisions GitHistory::conflictOf(const Path& file) {
    checkedMetadata();
    const auto& repository = m_git.repository();
    const auto path = relative(file);
    ConflictRevisions revisions;
    // The sides' contents stand in the index: "<mode> <object> <stage>\t<path>\0".
    std::array<std::string, 4> objects;
    NulSplitter("ls-files")
        .feed(m_git.read(
                  {.arguments = {"ls-files", "-z", "-u", "--full-name", "--", pathspec(path)}}),
              [&](std::string_view entry) {
                  const auto tab = entry.find('\t');
                  if (tab == std::string_view::npos || tab < 10 || entry.substr(tab + 1) != path)
                      return;
                  const auto stage = static_cast<std::size_t>(entry[tab - 1] - '0');
                  if (stage >= 1 && stage <= 3)
                      objects[stage] = entry.substr(7, tab - 9);
              });
    if (objects[1].empty() && objects[2].empty() && objects[3].empty())
        return revisions;

    // Which commits they come from is known for ours and theirs; the base may be none at all.
    std::string theirs;
    for (const char* name : {"MERGE_HEAD", "CHERRY_PICK_HEAD", "REVERT_HEAD", "REBASE_HEAD"})
        if (const auto head = readSmallFile(repository.gitDir() + "/" + name, 64 * 1024);
            theirs.empty() && head && isObjectName(head->substr(0, head->find('\n'))))
            theirs = head->substr(0, head->find('\n'));
    const auto side = [&](const std::string& object, const std::string& commit) {
        std::unique_ptr<Revision> revision;
        if (object.empty())
            return revision;
        if (commit.empty()) {
            revision = std::make_unique<Revision>();
            revision->path = file;
        } else {
            revision = describe(commit, file);
        }
        revision->contentID = toUString(object);
        return revision;
    };
    std::string base;
    if (!theirs.empty() && !objects[1].empty()) {
        GitRun run{.arguments = {"merge-base", "HEAD", theirs}};
        run.consume = [&](std::string_view text) { base += text; };
        const auto result = m_git.run({run}).front();
        base = result.exitCode == 0 ? base.substr(0, base.find('\n')) : std::string();
    }
    revisions.base = side(objects[1], base);
    revisions.ours = side(objects[2], hasCommits() ? resolve("HEAD", "HEAD") : "");
    revisions.theirs = side(objects[3], theirs);
    return revisions;
}

void GitHistory::checkedMetadata() const {
    m_git.repository().checkMetadataFiles();
}

std::string GitHistory::pathspec(const std::string& relative) const {
    const auto& repository = m_git.repository();
    return repository.folder() == repository.root() ? relative : repository.root() + "/" + relative;
}

} // namespace quendo::git
