#include "host/WorkingCopy.h"

#include "host/HostError.h"
#include "host/VisibleText.h"
#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/factory/CMAdapterFactories.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/UString.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace quendo::host {
namespace {

std::string systemsWords(int error) {
    return std::generic_category().message(error);
}

Path canonical(const Path& path) {
    return platform::services()->files->canonical(path);
}

void refuseEmpty(const std::string& argument) {
    if (argument.empty())
        throw HostError("an empty path names nothing");
}

Path absolute(const std::string& argument) {
    const Path path = Path::fromNative(argument);
    return path.isAbsolute() ? path : currentFolder() / path;
}

void checkFolder(const std::string& argument) {
    refuseEmpty(argument);
    const std::string name = visiblePath(argument);
    struct stat about {};
    if (::stat(argument.c_str(), &about) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            throw HostError(name + " does not exist");
        throw HostError("cannot read " + name + ": " + systemsWords(errno));
    }
    if (S_ISREG(about.st_mode))
        throw HostError(name + " is a file; give the folder that holds it");
    if (!S_ISDIR(about.st_mode))
        throw HostError(name + " is not a folder");
    if (::faccessat(AT_FDCWD, argument.c_str(), R_OK | X_OK, AT_EACCESS) != 0)
        throw HostError("cannot read " + name + ": " + systemsWords(errno));
}

WorkingCopy open(const Path& from, Path path, const std::string& argument) {
    WorkingCopy result;
    result.folder = getSingletonManagedFolderProvider().provideFor(from, clientId);
    if (result.folder == nullptr)
        throw HostError(visiblePath(argument) + " is not in a working copy");
    result.root = result.folder->getRootFolder();
    result.path = std::move(path);
    const auto metadata = getCMAdapterFactory(result.folder->getSystemID())->getMetadataName();
    for (Path inside = result.path; inside.isBelow(result.root); inside = inside.parentPath()) {
        if (inside.parentPath() == result.root && inside.fileName().string() == metadata)
            throw HostError(visiblePath(argument) + " belongs to the metadata of " +
                            visiblePath(result.root) + ", not to its files");
    }
    return result;
}

} // namespace

std::string WorkingCopy::systemName() const {
    return toUtf8(folder->getSystemName());
}

Path currentFolder() {
    const std::unique_ptr<char, decltype(&std::free)> name(::getcwd(nullptr, 0), &std::free);
    if (!name)
        throw HostError("cannot tell the current folder: " + systemsWords(errno));
    return Path::fromNative(name.get());
}

void changeFolder(const std::string& folder) {
    if (!folder.empty() && ::chdir(folder.c_str()) != 0)
        throw HostError("cannot change to the folder " + visiblePath(folder) + ": " +
                        systemsWords(errno));
}

Path locate(const std::string& argument) {
    refuseEmpty(argument);
    std::string_view name = argument;
    while (name.size() > 1 && name.ends_with('/'))
        name.remove_suffix(1);
    const Path path = absolute(std::string(name));
    const auto last = path.fileName();
    if (last.empty() || last.string() == u"." || last.string() == u"..")
        return canonical(path);
    return canonical(path.parentPath()) / last;
}

WorkingCopy WorkingCopy::ofFolder(const std::string& folder) {
    checkFolder(folder);
    const Path path = canonical(absolute(folder));
    return open(path, path, folder);
}

WorkingCopy WorkingCopy::ofFile(const std::string& file) {
    const Path path = locate(file);
    struct stat about {};
    if (::lstat(path.toNative().c_str(), &about) == 0) {
        if (S_ISDIR(about.st_mode))
            throw HostError(visiblePath(file) + " is a folder; give a file");
    } else if (errno != ENOENT && errno != ENOTDIR) {
        throw HostError("cannot read " + visiblePath(file) + ": " + systemsWords(errno));
    }
    return open(path.parentPath(), path, file);
}

WorkingCopy WorkingCopy::ofFolderOrFile(const std::string& path) {
    struct stat about {};
    const bool isFolder = ::stat(path.c_str(), &about) == 0 && S_ISDIR(about.st_mode);
    return isFolder ? ofFolder(path) : ofFile(path);
}

WorkingCopy WorkingCopy::ofPath(const std::string& path) {
    const Path place = locate(path);
    struct stat about {};
    if (::lstat(place.toNative().c_str(), &about) != 0 || !S_ISDIR(about.st_mode))
        return ofFile(path);
    auto own = ofFolder(path);
    const Path current = currentFolder();
    if (own.root != own.path || current == own.root || current.isBelow(own.root) ||
        !getSingletonManagedFolderProvider().provideFor(own.root.parentPath(), clientId))
        return own;
    return open(own.path.parentPath(), own.path, path);
}

} // namespace quendo::host
