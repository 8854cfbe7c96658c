#include "quendo/git/Repository.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/FileDescriptor.h"
#include "quendo/git/FormatConfig.h"
#include "quendo/git/GitText.h"
#include "quendo/git/NativePath.h"
#include "quendo/git/SmallFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <unistd.h>

namespace quendo::git {
namespace {

using exception::DamagedRepositoryError;

constexpr std::size_t pointerLimit = 64 * 1024; // HEAD, .git, commondir: one line each
constexpr std::size_t configLimit = 16 * 1024 * 1024;
constexpr off_t rulesLimit = 100 * 1024 * 1024; // also where newer git stops reading ignore files
constexpr off_t tableLimit = off_t{16} * 1024 * 1024 * 1024;

std::string shown(std::string_view native) {
    return Path::fromNative(native).toUtf8();
}

bool isLink(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

const char* kindOf(mode_t mode) {
    return S_ISFIFO(mode)   ? "a FIFO"
           : S_ISSOCK(mode) ? "a socket"
           : S_ISDIR(mode)  ? "a folder"
           : S_ISREG(mode)  ? "a file"
                            : "a device";
}

void checkRegular(const std::string& file, off_t limit) {
    struct stat status;
    if (::stat(file.c_str(), &status) != 0)
        return;
    if (!S_ISREG(status.st_mode))
        throw DamagedRepositoryError(shown(file) + " is " + kindOf(status.st_mode) +
                                     " where Git has a file; replace it");
    if (status.st_size > limit)
        throw DamagedRepositoryError(shown(file) + " is too large to be true (" +
                                     std::to_string(status.st_size) + " bytes); look what it is");
}

// Whether git would take the owner for the user. Under sudo it takes the one who called that, too.
bool isOwnedByUser(const std::string& path) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0)
        return true;
    const uid_t user = ::geteuid();
    if (status.st_uid == user)
        return true;
    const char* caller = user == 0 ? std::getenv("SUDO_UID") : nullptr;
    return caller != nullptr && *caller != '\0' && std::to_string(status.st_uid) == caller;
}

// As git reads a boolean: anything but these and 0 is on.
bool isTrue(const std::string* value) {
    if (value == nullptr)
        return false;
    std::string text = *value;
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return !(text.empty() || text == "false" || text == "no" || text == "off" ||
             text.find_first_not_of('0') == std::string::npos);
}

RepositoryStamp::File stampOf(const std::string& file) {
    struct stat status;
    if (::stat(file.c_str(), &status) != 0)
        return {};
    return {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

// A folder changes its time and size with what it holds.
RepositoryStamp::File stampOfMarker(const std::string& metadata) {
    struct stat status;
    if (::lstat(metadata.c_str(), &status) != 0)
        return {};
    if (S_ISDIR(status.st_mode))
        return {status.st_ino, 0, 0, 0};
    return {status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

} // namespace

bool Repository::isAt(const Path& folder) {
    struct stat status;
    const std::string metadata = join(folder.toNative(), ".git");
    return folder.isAbsolute() && ::lstat(metadata.c_str(), &status) == 0 &&
           (S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode) || S_ISREG(status.st_mode));
}

Repository Repository::open(const Path& folder) {
    Repository repository;
    const auto place = canonical(folder.toNative());
    if (!place)
        throw DamagedRepositoryError(folder.toUtf8() +
                                     " cannot be reached: " + std::strerror(errno));
    repository.m_folder = *place;
    const std::string metadata = join(*place, ".git");
    const std::string name = shown(metadata);
    repository.m_marker = stampOfMarker(metadata);

    struct stat status;
    if (::stat(metadata.c_str(), &status) != 0)
        throw DamagedRepositoryError(name + " cannot be reached: " + std::strerror(errno));
    if (S_ISDIR(status.st_mode)) {
        repository.m_gitDir = metadata;
    } else {
        const auto content = readSmallFile(metadata, pointerLimit);
        if (!content || !content->starts_with("gitdir: "))
            throw DamagedRepositoryError(name + " is neither a folder nor a file that says where "
                                                "the repository is (\"gitdir: …\")");
        const auto target = join(*place, withoutLineEnds(content->substr(8)));
        const auto resolved = canonical(target);
        if (!resolved || !isFolder(*resolved))
            throw DamagedRepositoryError(name + " points to " + shown(target) +
                                         ", where no repository is; mend it with "
                                         "'git worktree repair' or 'git submodule update'");
        repository.m_gitDir = *resolved;
    }
    repository.m_gitDir = canonical(repository.m_gitDir).value_or(repository.m_gitDir);
    repository.m_commonDir = repository.m_gitDir;
    if (const auto common = readSmallFile(repository.m_gitDir + "/commondir", pointerLimit)) {
        const auto target = join(repository.m_gitDir, withoutLineEnds(*common));
        const auto resolved = canonical(target);
        if (!resolved)
            throw DamagedRepositoryError(shown(repository.m_gitDir) + "/commondir points to " +
                                         shown(target) + ", where no repository is");
        repository.m_commonDir = *resolved;
    }

    for (const char* part : {"objects", "refs"})
        if (!isFolder(repository.m_commonDir + "/" + part))
            throw DamagedRepositoryError(shown(repository.m_commonDir) + " has no folder '" + part +
                                         "': the repository is damaged");
    const std::string head = repository.m_gitDir + "/HEAD";
    if (::lstat(head.c_str(), &status) != 0)
        throw DamagedRepositoryError(shown(head) + " is missing: the repository is damaged");
    if (!S_ISLNK(status.st_mode)) {
        const auto content = readSmallFile(head, pointerLimit);
        if (!content || !(content->starts_with("ref:") ||
                          isObjectName(content->substr(0, content->find_first_of(" \t\r\n")))))
            throw DamagedRepositoryError(shown(head) + " names neither a branch nor a commit: "
                                                       "the repository is damaged");
    }
    repository.readFormat();
    repository.m_rootPath = Path::fromNative(repository.m_root);
    for (const std::string* part : {&metadata, static_cast<const std::string*>(&repository.m_root),
                                    static_cast<const std::string*>(&repository.m_gitDir)})
        repository.m_needsGitsOpinion |= !isOwnedByUser(*part);
    return repository;
}

void Repository::readFormat() {
    m_root = m_folder;
    const std::string file = m_commonDir + "/config";
    struct stat status;
    if (::stat(file.c_str(), &status) != 0 && errno == ENOENT)
        return;
    const auto text = readSmallFile(file, configLimit);
    if (!text) {
        checkRegular(file, configLimit);
        throw DamagedRepositoryError(shown(file) + " cannot be read");
    }
    auto config = FormatConfig::parse(*text);
    m_needsGitsOpinion |= !config.isRegular;
    if (const auto* version = config.find("core.repositoryformatversion"))
        m_needsGitsOpinion |= *version != "0" && *version != "1";
    for (const auto& [name, value] : config.values)
        if (name.starts_with("extensions."))
            m_needsGitsOpinion |= name != "extensions.objectformat" &&
                                  name != "extensions.worktreeconfig" &&
                                  name != "extensions.partialclone" && name != "extensions.noop" &&
                                  name != "extensions.preciousobjects";
    if (isTrue(config.find("extensions.worktreeconfig"))) {
        const auto more = readSmallFile(m_gitDir + "/config.worktree", configLimit);
        const auto parsed = FormatConfig::parse(more.value_or(""));
        m_needsGitsOpinion |= !parsed.isRegular;
        for (const auto& [name, value] : parsed.values)
            config.values[name] = value;
    } else if (m_gitDir != m_commonDir) {
        return; // a linked worktree is never bare and lies where its .git file lies
    }

    if (const auto* worktree = config.find("core.worktree")) {
        const auto target = join(m_gitDir, *worktree);
        const auto resolved = canonical(target);
        if (!resolved || !isFolder(*resolved))
            throw DamagedRepositoryError("core.worktree in " + shown(file) + " names " +
                                         shown(target) + ", which is not there");
        m_root = *resolved;
    } else if (isTrue(config.find("core.bare")) && m_gitDir == m_commonDir) {
        throw exception::UnsupportedFormatError(shown(m_folder) +
                                                " is a bare repository (core.bare in " +
                                                shown(file) + "): it has no working copy");
    }
}

bool Repository::isCurrent() const {
    return m_marker == stampOfMarker(join(m_folder, ".git"));
}

void Repository::checkMetadataFiles() const {
    for (const char* name : {"HEAD", "commondir", "MERGE_HEAD", "CHERRY_PICK_HEAD", "REVERT_HEAD",
                             "REBASE_HEAD", "MERGE_MSG", "SQUASH_MSG", "BISECT_LOG"})
        checkRegular(m_gitDir + "/" + name, rulesLimit);
    for (const char* name : {"config.worktree", "info/sparse-checkout"})
        checkRegular(m_gitDir + "/" + name, rulesLimit);
    for (const char* name : {"config", "info/exclude", "info/attributes", "info/grafts", "shallow",
                             "info/sparse-checkout", "objects/info/alternates"})
        checkRegular(m_commonDir + "/" + name, rulesLimit);
    checkRegular(m_gitDir + "/index", tableLimit);
    checkRegular(m_commonDir + "/packed-refs", tableLimit);
    if (const auto reference = headReference()) {
        // A folder is fine here: "refs/heads/a" beside the packed branch "a/b".
        const std::string file = m_commonDir + "/" + *reference;
        if (!isFolder(file))
            checkRegular(file, static_cast<off_t>(pointerLimit));
    }
    for (const char* name : {".gitignore", ".gitattributes", ".gitmodules"}) {
        const auto file = join(m_root, name);
        // A folder of such a name is like any other. Of these three git reads only .gitmodules
        // through a symbolic link; an older git that reads the others is watched as it runs.
        if (!isFolder(file) && (!isLink(file) || std::string_view(name) == ".gitmodules"))
            checkRegular(file, rulesLimit);
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(m_gitDir.c_str()), ::closedir);
    while (const auto* entry = folder ? ::readdir(folder.get()) : nullptr)
        if (std::string_view(entry->d_name).starts_with("sharedindex."))
            checkRegular(m_gitDir + "/" + entry->d_name, tableLimit);
}

RepositoryStamp Repository::stamp() const {
    const auto reference = headReference();
    return {{stampOf(m_gitDir + "/index"), stampOf(m_gitDir + "/HEAD"),
             reference ? stampOf(m_commonDir + "/" + *reference) : RepositoryStamp::File(),
             stampOf(m_commonDir + "/packed-refs")}};
}

bool Repository::isWrittenByReading() const {
    struct stat status;
    if (::stat((m_gitDir + "/info/sparse-checkout").c_str(), &status) == 0 || hasSparseIndex())
        return true;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(m_gitDir.c_str()), ::closedir);
    while (const auto* entry = folder ? ::readdir(folder.get()) : nullptr)
        if (std::string_view(entry->d_name).starts_with("sharedindex."))
            return true;
    return false;
}

// The mark of a sparse index is an extension without content. Behind it stand at most the
// extension with the end of the entries and the checksum.
bool Repository::hasSparseIndex() const {
    constexpr std::string_view mark("sdir\0\0\0\0", 8);
    constexpr off_t mostBehind = 256;
    const FileDescriptor index(
        ::open((m_gitDir + "/index").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!index || ::fstat(index.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    std::array<char, mostBehind> end;
    const auto size = ::pread(index.get(), end.data(), end.size(),
                              std::max<off_t>(0, status.st_size - mostBehind));
    return size > 0 && std::string_view(end.data(), static_cast<std::size_t>(size)).find(mark) !=
                           std::string_view::npos;
}

std::uint64_t Repository::indexSize() const {
    struct stat status;
    return ::stat((m_gitDir + "/index").c_str(), &status) == 0
               ? static_cast<std::uint64_t>(status.st_size)
               : 0;
}

std::optional<std::string> Repository::headReference() const {
    const auto content = readSmallFile(m_gitDir + "/HEAD", pointerLimit);
    if (!content || !content->starts_with("ref:"))
        return std::nullopt;
    auto name = withoutLineEnds(content->substr(4));
    name.erase(0, std::min(name.find_first_not_of(" \t"), name.size()));
    // The name becomes part of a path: one that climbs out of the metadata names no branch.
    if (!name.starts_with("refs/") || name.find("..") != std::string::npos)
        return std::nullopt;
    return name;
}

std::optional<std::string> Repository::relative(const Path& path) const {
    const auto normal = path.lexicallyNormal();
    if (normal == m_rootPath)
        return "";
    if (!normal.isBelow(m_rootPath))
        return std::nullopt;
    auto result = normal.toNative().substr(m_root == "/" ? 1 : m_root.size() + 1);
    if (result == ".git" || result.starts_with(".git/"))
        return std::nullopt;
    return result;
}

} // namespace quendo::git
