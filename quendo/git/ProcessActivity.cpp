#include "quendo/git/ProcessActivity.h"

#include "quendo/git/SmallFile.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>

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

template <class Visitor>
void forEachThread(const std::string& folder, Visitor&& visit) {
    const std::unique_ptr<DIR, int (*)(DIR*)> threads(::opendir((folder + "/task").c_str()),
                                                      ::closedir);
    while (const auto* entry = threads ? ::readdir(threads.get()) : nullptr)
        if (entry->d_name[0] != '.')
            visit(folder + "/task/" + entry->d_name);
}

/// Visits `pid` and everything that it started: its number, and how far below `pid` it is.
template <class Visitor>
void forEachProcess(pid_t pid, Visitor&& visit, int depth = 0) {
    visit(pid, depth);
    if (depth == deepestChild)
        return;
    forEachThread("/proc/" + std::to_string(pid), [&](const std::string& thread) {
        std::istringstream children(readProcFile(thread + "/children"));
        for (pid_t child = 0; children >> child;)
            forEachProcess(child, visit, depth + 1);
    });
}

} // namespace

ProcessActivity lookAtProcess(pid_t pid) {
    ProcessActivity activity;
    forEachProcess(pid, [&](pid_t one, int depth) {
        const std::string folder = "/proc/" + std::to_string(one);
        activity.processorTime += processorTimeOf(folder);
        // A program of the user's may well use a FIFO of its own.
        if (depth == 0 || readProcFile(folder + "/comm") == "git\n")
            forEachThread(folder, [&](const std::string& thread) {
                activity.opensFifo |= readProcFile(thread + "/wchan") == "wait_for_partner";
            });
    });
    return activity;
}

std::vector<pid_t> descendantsOf(pid_t pid) {
    std::vector<pid_t> found;
    forEachProcess(pid, [&](pid_t one, int depth) {
        if (depth > 0)
            found.push_back(one);
    });
    return found;
}

std::vector<std::string> commandLinesOf(const std::vector<pid_t>& processes) {
    constexpr std::size_t most = 32, longest = 4096;
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < std::min(processes.size(), most); ++i) {
        auto line = readProcFile("/proc/" + std::to_string(processes[i]) + "/cmdline");
        line.resize(std::min(line.size(), longest));
        std::ranges::replace(line, '\0', ' ');
        if (!line.empty())
            lines.push_back(std::move(line));
    }
    return lines;
}

std::uint64_t toClockTicks(std::chrono::milliseconds time) {
    return static_cast<std::uint64_t>(time.count()) *
           static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK)) / 1000;
}

} // namespace quendo::git
