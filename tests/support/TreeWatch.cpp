#include "tests/support/TreeWatch.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace quendo::test {

namespace fs = std::filesystem;

Snapshot snapshot(const fs::path& folder) {
    Snapshot result;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        struct stat s {};
        ::lstat(entry.path().c_str(), &s);
        std::ostringstream text;
        text << s.st_ino << ' ' << s.st_mode << ' ' << s.st_size << ' ' << s.st_mtim.tv_sec << ' '
             << s.st_mtim.tv_nsec << ' ' << s.st_ctim.tv_sec << ' ' << s.st_ctim.tv_nsec << ' ';
        if (S_ISREG(s.st_mode))
            text << std::ifstream(entry.path()).rdbuf();
        result.emplace(entry.path(), text.str());
    }
    return result;
}

std::set<std::string> changesBetween(const Snapshot& before, const Snapshot& after) {
    std::vector<std::pair<std::string, std::string>> differing;
    std::ranges::set_symmetric_difference(before, after, std::back_inserter(differing));
    std::set<std::string> result;
    for (const auto& [path, text] : differing)
        result.insert(path);
    return result;
}

TreeWatch::TreeWatch(const fs::path& folder)
    : m_inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    add(folder);
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_directory() && !entry.is_symlink())
            add(entry.path());
}

TreeWatch::~TreeWatch() {
    ::close(m_inotify);
}

void TreeWatch::add(const fs::path& folder) {
    const int watch = ::inotify_add_watch(m_inotify, folder.c_str(),
                                          IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVE |
                                              IN_CLOSE_WRITE | IN_DONT_FOLLOW);
    if (watch < 0)
        throw std::runtime_error("cannot watch " + folder.native());
    m_folders[watch] = folder.native();
}

std::set<std::string> TreeWatch::drain() {
    std::set<std::string> result;
    alignas(inotify_event) char buffer[65536];
    for (ssize_t size; (size = ::read(m_inotify, buffer, sizeof buffer)) > 0;)
        for (const char* at = buffer; at < buffer + size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            result.insert(m_folders[event->wd] + (event->len != 0 ? "/" : "") +
                          (event->len != 0 ? event->name : ""));
            at += sizeof(inotify_event) + event->len;
        }
    return result;
}

} // namespace quendo::test
