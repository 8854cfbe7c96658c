#include "quendo/git/ProcessActivity.h"

#include "quendo/git/SmallFile.h"

#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <sstream>
#include <string>

namespace quendo::git {
namespace {

constexpr int deepestChild = 8;

std::string readProcFile(const std::string& file) {
    return readSmallFile(file, 64 * 1024).value_or(std::string());
}

std::uint64_t processorTimeOf(const std::string& folder) {
    const auto text = readProcFile(folder + "/stat");
    // The second field is the program's name in parentheses, which may hold anything.
    const auto nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos)
        return 0;
    std::istringstream fields(text.substr(nameEnd + 1));
    std::string skipped;
    for (int field = 3; field < 14; ++field)
        fields >> skipped;
    std::uint64_t total = 0, part = 0;
    for (int field = 14; field <= 17 && fields >> part; ++field)
        total += part;
    return total;
}

void look(pid_t pid, int depth, ProcessActivity& activity) {
    const std::string folder = "/proc/" + std::to_string(pid);
    activity.processorTime += processorTimeOf(folder);
    // A program of the user's may well use a FIFO of its own.
    const bool isWatched = depth == 0 || readProcFile(folder + "/comm") == "git\n";
    const std::unique_ptr<DIR, int (*)(DIR*)> threads(::opendir((folder + "/task").c_str()),
                                                      ::closedir);
    if (!threads)
        return;
    while (const auto* entry = ::readdir(threads.get())) {
        if (entry->d_name[0] == '.')
            continue;
        const std::string thread = folder + "/task/" + entry->d_name;
        if (isWatched && readProcFile(thread + "/wchan") == "wait_for_partner")
            activity.opensFifo = true;
        if (depth == deepestChild)
            continue;
        std::istringstream children(readProcFile(thread + "/children"));
        for (pid_t child = 0; children >> child;)
            look(child, depth + 1, activity);
    }
}

} // namespace

ProcessActivity lookAtProcess(pid_t pid) {
    ProcessActivity activity;
    look(pid, 0, activity);
    return activity;
}

} // namespace quendo::git
