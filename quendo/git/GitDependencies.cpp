#include "quendo/git/GitDependencies.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/GitRunner.h"
#include "quendo/git/GitText.h"
#include "quendo/git/MetadataFilter.h"
#include "quendo/git/NativePath.h"
#include "quendo/git/Repository.h"
#include "quendo/git/SmallFile.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::git {
namespace {

constexpr std::size_t mostNested = 5'000;
constexpr int mostInside = 1'000; // submodules of one submodule
constexpr std::size_t mostPathspecs = 64;
constexpr std::chrono::minutes unwatchedInterval{5};
constexpr std::size_t pointerLimit = 64 * 1024;

std::string resolved(const std::string& path) {
    return canonical(path).value_or(path);
}

std::string variable(const char* name, const std::string& otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

/// Where the metadata of a working copy are; empty when it has none.
std::string gitDirOf(const std::string& folder) {
    const auto metadata = folder + "/.git";
    if (isFolder(metadata))
        return resolved(metadata);
    const auto content = readSmallFile(metadata, pointerLimit);
    return content && content->starts_with("gitdir: ")
               ? resolved(join(folder, withoutLineEnds(content->substr(8))))
               : "";
}

std::string commonDirOf(const std::string& gitDir) {
    const auto common = readSmallFile(gitDir + "/commondir", pointerLimit);
    return common ? resolved(join(gitDir, withoutLineEnds(*common))) : gitDir;
}

/// What makes git take a folder for a repository.
bool isMarker(std::string_view inMetadata) {
    return inMetadata == "HEAD" || inMetadata == "refs" || inMetadata == "objects" ||
           inMetadata == "config" || inMetadata == "commondir";
}

/// Whether `relative` or a folder above it is one of `folders`.
bool isIn(const std::set<std::string>& folders, std::string_view relative) {
    for (auto end = relative.find('/');; end = relative.find('/', end + 1)) {
        if (folders.contains(std::string(relative.substr(0, end))))
            return true;
        if (end == std::string_view::npos)
            return false;
    }
}

/// Where the name ".git" starts in the path of something in a nested working copy; npos when it is
/// not in there.
std::size_t findMetadata(std::string_view relative) {
    constexpr std::string_view name = ".git";
    for (auto at = relative.find(name); at != std::string_view::npos;
         at = relative.find(name, at + 1)) {
        const auto end = at + name.size();
        if ((at == 0 || relative[at - 1] == '/') &&
            (end == relative.size() || relative[end] == '/'))
            return at;
    }
    return std::string_view::npos;
}

StateDependency onFiles(const std::string& folder, std::set<Path> files, const Path& root) {
    std::string name = "files";
    for (const auto& file : files)
        name += '\0' + file.toNative();
    return {Path::fromNative(folder),
            [files = std::move(files)](const Path& path) { return files.contains(path); },
            std::move(name),
            {root}};
}

/// Whether the metadata folder of `dependent`, which lies elsewhere, is a repository. When it is
/// not there, the folders that lead to it are followed from the nearest one that is.
StateDependency onMarkers(const std::string& gitDir, const Path& dependent) {
    const auto target = Path::fromNative(gitDir).lexicallyNormal();
    auto nearest = target;
    while (!isFolder(nearest.toNative()) && !nearest.parentPath().empty())
        nearest = nearest.parentPath();
    const auto from = Path::fromNative(resolved(nearest.toNative()));
    const auto at = nearest == target ? from : from / target.lexicallyRelative(nearest);
    return {from,
            [at](const Path& path) {
                return path == at || at.isBelow(path) ||
                       (path.parentPath() == at && isMarker(path.fileName().toNative()));
            },
            "marker " + at.toNative(),
            {dependent}};
}

} // namespace

GitDependencies::Stamp GitDependencies::stampOf(const std::string& file) {
    struct stat status;
    if (::stat(file.c_str(), &status) != 0)
        return {file, {}};
    return {file,
            {static_cast<long long>(status.st_ino), status.st_size, status.st_ctim.tv_sec,
             status.st_ctim.tv_nsec}};
}

bool GitDependencies::areCurrent(const std::vector<Stamp>& stamps) {
    return std::ranges::all_of(stamps,
                               [](const Stamp& stamp) { return stampOf(stamp.first) == stamp; });
}

// Which files git reads beside .git/config follows from its settings: the files that they come
// from, those that an include names (whatever its condition says, as watching a file without effect
// is harmless), and those that core.excludesFile and core.attributesFile name.
void GitDependencies::readConfiguration(GitRunner& git) {
    if (!m_configStamps.empty() && areCurrent(m_configStamps))
        return;
    m_ignored.clear(); // the user's ignore rules hold in submodules as well
    const auto& repository = git.repository();
    const auto home = variable("HOME", "/");
    const auto userFolder = variable("XDG_CONFIG_HOME", home + "/.config") + "/git";
    std::set<std::string> files{repository.commonDir() + "/config",
                                repository.gitDir() + "/config.worktree",
                                variable("GIT_CONFIG_GLOBAL", home + "/.gitconfig"),
                                userFolder + "/config",
                                userFolder + "/ignore",
                                userFolder + "/attributes",
                                variable("GIT_CONFIG_SYSTEM", "/etc/gitconfig")};
    std::vector<Stamp> stamps;
    for (const auto& file : files)
        stamps.push_back(stampOf(file)); // before it is read
    if (m_configStamps.empty())
        m_configFiles = files;
    m_ignoreByName.clear();
    m_ignoreByDefault.clear();
    m_namesUserFolder = false;
    std::string origin;
    bool isOrigin = true;
    NulSplitter("config").feed(
        git.read({.arguments = {"config", "-z", "--show-origin", "--list"}}),
        [&](std::string_view part) {
            if (std::exchange(isOrigin, !isOrigin)) {
                origin.clear();
                if (part.starts_with("file:") &&
                    files.insert(origin = join(repository.folder(), std::string(part.substr(5))))
                        .second)
                    stamps.push_back(stampOf(origin));
                return;
            }
            const auto keyEnd = part.find('\n');
            if (keyEnd == std::string_view::npos)
                return;
            const auto key = part.substr(0, keyEnd);
            std::string value(part.substr(keyEnd + 1));
            if (key == "diff.ignoresubmodules")
                m_ignoreByDefault = value;
            else if (key.starts_with("submodule.") && key.ends_with(".ignore"))
                m_ignoreByName[std::string(key.substr(10, key.size() - 17))] = value;
            if (value.starts_with("~/"))
                value = home + value.substr(1);
            const bool isInclude =
                key == "include.path" || (key.starts_with("includeif.") && key.ends_with(".path"));
            if (value.empty() ||
                !(isInclude || key == "core.excludesfile" || key == "core.attributesfile"))
                return;
            if (value.starts_with('~')) {
                m_namesUserFolder = true;
                return;
            }
            const auto file = join(
                isInclude && !origin.empty() ? parentFolderOf(origin) : repository.root(), value);
            if (files.insert(file).second)
                stamps.push_back(stampOf(file));
        });
    m_configFiles = std::move(files);
    m_configStamps = std::move(stamps);
}

void GitDependencies::addConfiguration(GitRunner& git, std::vector<StateDependency>& found) const {
    std::map<std::string, std::set<Path>> byFolder;
    for (const auto& named : m_configFiles) {
        // The file itself as well as the link that leads there.
        const auto normal = Path::fromNative(named).lexicallyNormal();
        for (const auto& file : {Path::fromNative(resolved(parentFolderOf(normal.toNative())))
                                     .child(normal.fileName().toNative()),
                                 Path::fromNative(resolved(named))}) {
            const auto folder = parentFolderOf(file.toNative());
            if (!(file.isBelow(m_metadata.folder) && m_metadata.filter(file)) && isFolder(folder))
                byFolder[folder].insert(file);
        }
    }
    for (auto& [folder, files] : byFolder)
        found.push_back(onFiles(folder, std::move(files), git.repository().rootPath()));
}

/// The metadata of `folder`, unless they are followed already: those that lie in a nested working
/// copy are followed with it.
void GitDependencies::addMetadata(GitRunner& git, const std::string& folder,
                                  const std::string& gitDir,
                                  std::vector<StateDependency>& found) const {
    const auto head = Path::fromNative(gitDir + "/HEAD");
    const bool isRoot = folder == git.repository().folder();
    if (gitDir.empty() || (!isRoot && gitDir == folder + "/.git") ||
        (head.isBelow(m_metadata.folder) && m_metadata.filter(head)))
        return;
    if (!isFolder(gitDir)) {
        found.push_back(onMarkers(gitDir, Path::fromNative(folder)));
        return;
    }
    const auto common = commonDirOf(gitDir);
    found.push_back({Path::fromNative(common),
                     makeMetadataFilter(common, gitDir),
                     "metadata " + gitDir,
                     {isRoot ? git.repository().rootPath() : Path::fromNative(folder)}});
}

void GitDependencies::readLinks(GitRunner& git, const std::vector<std::string>& nested) {
    const auto& repository = git.repository();
    std::pair key(stampOf(repository.gitDir() + "/index"), nested);
    if (key == m_linksKey)
        return;
    GitRun run{.arguments = {"ls-files", "-z", "-s", "--full-name", "--"}};
    if (nested.size() <= mostPathspecs)
        for (const auto& one : nested)
            run.arguments.push_back(repository.root() + "/" + one);
    std::set<std::string> links;
    NulSplitter splitter("ls-files");
    run.consume = [&](std::string_view text) {
        splitter.feed(text, [&](std::string_view record) {
            if (record.starts_with("160000"))
                links.emplace(record.substr(std::min(record.find('\t'), record.size() - 1) + 1));
        });
    };
    if (!nested.empty() && git.run({run}).front().exitCode != 0)
        return; // a status query says what is wrong
    m_links = std::move(links);
    m_linksKey = std::move(key);
}

// Adds the ignored folders of the submodule at `folder` and of the submodules in it.
void GitDependencies::findIgnored(GitRunner& git, const std::string& folder,
                                  const std::string& prefix, int& budget, Ignored& found) const {
    // An ignore file among the submodule's files is watched with them.
    const auto gitDir = gitDirOf(folder), common = commonDirOf(gitDir);
    for (const auto& file : {gitDir + "/index", common + "/config", common + "/info/exclude"})
        found.stamps.push_back(stampOf(file));
    const auto ask = [&](std::vector<std::string> arguments, std::string input = {}) {
        std::string output;
        GitRun run{.arguments = std::move(arguments),
                   .input = std::move(input),
                   .folder = folder,
                   .asSubmodule = true,
                   .keepMetadata = true,
                   .literalPathspecs = false};
        run.consume = [&](std::string_view text) { output += text; };
        return git.run({run}).front().exitCode == 0 ? output : "";
    };
    // One whose configuration leads elsewhere is not asked about, see GitStatus.
    if (ask({"rev-parse", "--show-toplevel"}) != resolved(folder) + "\n")
        return;
    // This also names a folder in which each file is ignored by itself. A new file there may not be
    // ignored, so only folders that are ignored as a whole count.
    std::string folders;
    NulSplitter("ls-files")
        .feed(ask({"ls-files", "-z", "-o", "-i", "--exclude-standard", "--directory"}),
              [&](std::string_view path) {
                  if (path.ends_with('/'))
                      folders += "./" + std::string(path.substr(0, path.size() - 1)) + '\0';
              });
    if (!folders.empty())
        NulSplitter("check-ignore")
            .feed(ask({"check-ignore", "-z", "--stdin"}, std::move(folders)),
                  [&](std::string_view path) {
                      found.folders.insert(prefix + std::string(path.substr(2)));
                  });
    if (!stampOf(folder + "/.gitmodules").second.empty())
        NulSplitter("ls-files").feed(ask({"ls-files", "-z", "-s"}), [&](std::string_view record) {
            const auto tab = record.find('\t');
            if (!record.starts_with("160000") || tab == std::string_view::npos || --budget < 0)
                return;
            const std::string inner(record.substr(tab + 1));
            if (!gitDirOf(folder + "/" + inner).empty())
                findIgnored(git, folder + "/" + inner, prefix + inner + "/", budget, found);
        });
}

// The entry of a nested repository depends on whether it is one, and not on its files. That of a
// submodule depends on all that differs inside.
void GitDependencies::addNested(GitRunner& git, const Path& folder, const std::string& relative,
                                bool isLink, std::vector<StateDependency>& found) {
    const auto native = folder.toNative();
    struct stat status;
    if (::lstat(native.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return; // the folder around it is watched
    const auto gitDir = gitDirOf(native);
    auto depth = Depth::Marker;
    std::set<std::string> ignored;
    if (isLink && !gitDir.empty()) {
        auto ignore = m_ignoreByDefault;
        if (const auto module = m_modules.find(relative); module != m_modules.end()) {
            const auto& [name, setting] = module->second;
            const auto own = m_ignoreByName.find(name);
            if (own != m_ignoreByName.end() || !setting.empty())
                ignore = own != m_ignoreByName.end() ? own->second : setting;
        }
        depth = ignore == "all" ? Depth::Marker : ignore == "dirty" ? Depth::Metadata : Depth::All;
        if (depth != Depth::Marker)
            addMetadata(git, native, gitDir, found);
    } else if (!gitDir.empty() &&
               (gitDir != native + "/.git" || ::access(native.c_str(), R_OK) != 0)) {
        // Elsewhere, or in a folder that may be entered and not be watched.
        found.push_back(onMarkers(gitDir, folder));
    }
    std::string name = "nested " + std::to_string(static_cast<int>(depth));
    if (depth == Depth::All) {
        auto known = m_ignored.find(relative);
        if (known == m_ignored.end() || !areCurrent(known->second.stamps)) {
            int budget = mostInside;
            Ignored now;
            findIgnored(git, native, "", budget, now);
            known = m_ignored.insert_or_assign(relative, std::move(now)).first;
        }
        ignored = known->second.folders;
    }
    for (const auto& one : ignored)
        name += '\0' + one;
    found.push_back({folder,
                     [folder, depth, ignored = std::move(ignored)](const Path& path) {
                         if (path == folder)
                             return true;
                         const auto inside = path.lexicallyRelative(folder).toNative();
                         const auto at = findMetadata(inside);
                         if (at == std::string::npos)
                             return depth == Depth::All && !isIn(ignored, inside);
                         if (at != 0 && (depth != Depth::All || isIn(ignored, inside)))
                             return false;
                         const auto rest = std::min(at + 5, inside.size());
                         const auto metadata = std::string_view(inside).substr(rest);
                         return metadata.empty() ||
                                (depth == Depth::Marker ? isMarker(metadata)
                                                        : isRelevantMetadata(metadata));
                     },
                     std::move(name),
                     {folder}});
}

void GitDependencies::readModules(GitRunner& git) {
    auto stamp = stampOf(git.repository().root() + "/.gitmodules");
    if (stamp == m_modulesStamp)
        return;
    std::map<std::string, std::pair<std::string, std::string>> byName; // path, ignore
    GitRun run{.arguments = {"config", "-z", "--file", stamp.first, "--get-regexp",
                             "^submodule\\..*\\.(path|ignore)$"}};
    NulSplitter splitter("config");
    run.consume = [&](std::string_view text) {
        splitter.feed(text, [&](std::string_view record) {
            const auto keyEnd = std::min(record.find('\n'), record.size() - 1);
            const auto key = record.substr(10, keyEnd - 10);
            auto& module = byName[std::string(key.substr(0, key.rfind('.')))];
            (key.ends_with(".path") ? module.first : module.second) = record.substr(keyEnd + 1);
        });
    };
    if (!stamp.second.empty())
        git.run({run});
    m_modules.clear();
    for (auto& [name, module] : byName)
        m_modules[module.first] = {name, module.second};
    m_modulesStamp = std::move(stamp);
}

std::vector<StateDependency> GitDependencies::find(GitRunner& git, const std::vector<Path>& nested,
                                                   const std::vector<Path>& changed) {
    const auto& repository = git.repository();
    repository.checkMetadataFiles();
    std::vector<StateDependency> found;
    try {
        readConfiguration(git);
    } catch (const exception::OperationCancelledError&) {
        throw;
    } catch (const exception::SourceControlException&) {
        if (!m_configStamps.empty())
            throw;
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
    addConfiguration(git, found);
    addMetadata(git, repository.folder(), repository.gitDir(), found);
    if (m_configStamps.empty())
        return found; // a file of the user's has an error, and is watched until it is corrected

    bool isUnwatched = m_namesUserFolder;
    std::vector<std::string> relative;
    for (const auto& path : nested)
        if (const auto inside = repository.relative(path); inside && !inside->empty())
            relative.push_back(*inside);
    if (relative.size() > mostNested) {
        QUENDO_LOG(Severity::Notice) << repository.rootPath() << " has " << relative.size()
                                     << " nested working copies; changes in all but " << mostNested
                                     << " are not watched: everything is refreshed every "
                                     << unwatchedInterval.count() << " minutes";
        relative.resize(mostNested);
        isUnwatched = true;
    }
    if (isUnwatched)
        found.push_back({{}, {}, "unwatched", {repository.rootPath()}, unwatchedInterval});
    for (const auto& path : changed)
        if (const auto inside = repository.relative(path))
            m_ignored.erase(*inside);
    readLinks(git, relative);
    readModules(git);
    for (const auto& one : relative)
        addNested(git, repository.rootPath().child(one), one, m_links.contains(one), found);
    std::erase_if(m_ignored, [&](const auto& entry) {
        return std::ranges::find(relative, entry.first) == relative.end();
    });
    return found;
}

} // namespace quendo::git
