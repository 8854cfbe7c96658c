#include "host/StatusCommand.h"

#include "host/BranchPrinter.h"
#include "host/HostError.h"
#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <filesystem>
#include <future>
#include <map>
#include <utility>

namespace quendo::host {
namespace {

namespace fs = std::filesystem;

/// The paths that lie in one working copy.
struct Part {
    WorkingCopy copy;                  ///< of the first of them
    std::map<Path, std::string> paths; ///< as they were given

    bool hasFolderAround(const Path& path) const {
        for (auto above = path; above != copy.root;)
            if (above = above.parentPath(); paths.contains(above))
                return true;
        return false;
    }
};

std::map<Path, Part> partsOf(const std::vector<std::string>& arguments) {
    std::map<Path, Part> parts;
    for (const auto& argument : arguments) {
        const auto copy = WorkingCopy::ofFolderOrFile(argument);
        parts.try_emplace(copy.root, Part{copy, {}})
            .first->second.paths.emplace(copy.path, argument);
    }
    return parts;
}

/// Refuses a path that the answer does not hold, because it is no file that can be under source
/// control.
void refuseMissing(const Part& part, const StatusReport& report) {
    for (const auto& [path, argument] : part.paths) {
        const auto isWithin = [&path = path](const auto& entry) {
            return entry.first.isBelow(path);
        };
        if (report.states.contains(path) || path == report.root ||
            std::ranges::any_of(report.states, isWithin))
            continue;
        std::error_code unreadable;
        const auto kind = fs::symlink_status(path.toNative(), unreadable).type();
        if (kind == fs::file_type::not_found)
            throw HostError(visiblePath(argument) + " does not exist");
        if (kind != fs::file_type::directory)
            throw HostError(visiblePath(argument) +
                            " is not a file that can be under source control");
    }
}

StatusReport reportOf(const Part& part, const StatusSelection& selection) {
    std::vector<Path> paths;
    for (const auto& each : part.paths)
        if (!part.hasFolderAround(each.first))
            paths.push_back(each.first);
    StatusReport report{part.copy.systemName(), part.copy.root,
                        paths.size() == 1 ? paths.front() : part.copy.root,
                        part.copy.adapter().getStatus(paths), selection};
    refuseMissing(part, report);
    report.pathCount = paths.size();
    const auto only = report.states.find(report.folder);
    report.isFile = only != report.states.end() && !only->second.isFolder();
    return report;
}

/// Reads the branch beside the states.
std::future<BranchState> branchOf(const WorkingCopy& copy) {
    auto* const branches = branchInformationOf(copy.adapter());
    if (branches == nullptr)
        return {};
    // Without a thread to be had, get() reads it.
    return std::async(std::launch::async | std::launch::deferred,
                      [branches] { return branches->getBranchState(); });
}

std::string humanBranchOf(std::future<BranchState>& branch, bool colours) {
    if (!branch.valid())
        return {};
    try {
        return humanBranch(branch.get(), colours);
    } catch (const std::exception& error) {
        return "cannot read the branch: " + visibleText(error.what()) + "\n";
    }
}

std::string print(const StatusReport& report, StatusFormat format,
                  std::future<BranchState>& branch) {
    switch (format) {
    case StatusFormat::Json:
        return (branch.valid() ? jsonBranch(branch.get(), report.root, report.system) : "") +
               jsonStatus(report);
    case StatusFormat::Porcelain:
        return porcelainStatus(report, '\n');
    case StatusFormat::PorcelainNul:
        return porcelainStatus(report, '\0');
    case StatusFormat::Human:
        break;
    }
    return humanStatus(report, currentFolder(), wantsColours()) +
           humanBranchOf(branch, wantsColours());
}

} // namespace

CLI::App* StatusCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("status", "Show what differs from unmodified");
    // Told apart only when all are there.
    const auto addFlag = [app](const char* flag, const std::string& text) {
        app->add_flag(flag, text);
    };
    app->add_option("PATH", paths, "Files and folders to look at (default: this folder)");
    app->add_flag("--all", selection.all, "Unmodified paths as well");
    addFlag("--untracked", "Untracked paths only, or with --all");
    app->add_flag("--ignored", selection.ignored, "Ignored paths as well");
    addFlag("--json", "One JSON object a line");
    app->add_flag("--branch", branch, "With --json: first an object for branch and operation");
    addFlag("--porcelain", "For scripts: two columns, a tab, the path from the root");
    addFlag("-z", "With --porcelain: end records with a NUL");
    app->footer(
        "The last lines show the branch, and a merge, rebase or other operation in progress.\n"
        "Examples:\n"
        "  quendo status                       what differs at or below this folder\n"
        "  quendo status main.c lib ~/other    of files and folders\n"
        "  quendo status --all --json src      every path below src, for a program\n"
        "  quendo status --porcelain -z        the same, for a script");
    app->final_callback([this, app] {
        const auto has = [app](const char* flag) { return app->count(flag) != 0; };
        if (has("--json") && has("--porcelain"))
            throw CLI::ValidationError("--json and --porcelain cannot go together");
        if (has("-z") && !has("--porcelain"))
            throw CLI::ValidationError("-z needs --porcelain");
        if (branch && !has("--json"))
            throw CLI::ValidationError("--branch needs --json");
        selection.untrackedOnly = has("--untracked") && !selection.all;
        format = has("--json")        ? StatusFormat::Json
                 : has("-z")          ? StatusFormat::PorcelainNul
                 : has("--porcelain") ? StatusFormat::Porcelain
                                      : StatusFormat::Human;
    });
    return app;
}

void StatusCommand::run() const {
    const auto parts = partsOf(paths);
    const bool isScript = format == StatusFormat::Porcelain || format == StatusFormat::PorcelainNul;
    if (isScript && parts.size() > 1)
        throw HostError(visiblePath(parts.begin()->second.paths.begin()->second) + " and " +
                        visiblePath(parts.rbegin()->second.paths.begin()->second) +
                        " belong to different working copies, which --porcelain does not tell "
                        "apart; use --json, or name those of one at a time");
    std::vector<std::shared_ptr<CMInteractor>> interactors;
    for (const auto& each : parts)
        interactors.push_back(each.second.copy.interactor());
    Session session(interactors);
    std::string output;
    for (const auto& each : parts) {
        const auto& part = each.second;
        auto branchState = format == StatusFormat::Human || branch ? branchOf(part.copy)
                                                                   : std::future<BranchState>();
        auto report = reportOf(part, selection);
        report.isOneOfSeveral = parts.size() > 1;
        if (format == StatusFormat::Human && !output.empty())
            output += "\n";
        output += print(report, format, branchState);
    }
    session.finish(output);
}

} // namespace quendo::host
