#include "quendo/pool/FolderDump.h"

#include "quendo/cache/BranchStateCache.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/cache/CMStatusCacheStatistics.h"
#include "quendo/exception/ErrorText.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Services.h"
#include "quendo/pool/FindInterface.h"
#include "quendo/pool/PooledManagedFolder.h"

#include <chrono>
#include <iomanip>
#include <locale>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>

namespace quendo {
namespace {

using Lines = std::ostringstream;

/// The text of an error, on one line.
std::string textOf(const std::exception_ptr& error) {
    auto text = exception::errorText(error);
    for (auto& each : text) {
        if (each == '\n')
            each = ' ';
    }
    return text;
}

std::string_view nameOf(platform::WatchHealth::Means means) {
    using Means = platform::WatchHealth::Means;
    return means == Means::Native ? "native" : means == Means::Polled ? "polled" : "not watched";
}

void describeWatches(Lines& lines, ManagedFolder& folder) {
    // The watcher is that of the provider that made the folder.
    const auto* pooled = findInterface<PooledManagedFolder>(folder);
    const auto ofThread = platform::services();
    const auto& watcher = *(pooled != nullptr ? pooled->getServices() : *ofThread).folderWatcher;
    const auto describeWatch = [&](const char* name, const Path& path) {
        const auto health = watcher.getHealth(path);
        lines << "watch of the " << name << ": " << nameOf(health.means)
              << (health.reason.empty() ? "" : ": ") << health.reason << '\n';
    };
    describeWatch("root", folder.getRootFolder());
    describeWatch("metadata", folder.getAdapter().getMetadataFolder().folder);
}

void describeEntries(Lines& lines, ManagedFolder& folder) {
    lines << "folder status flag: " << (folder.getCache().getFolderStatusFlag() ? "on" : "off")
          << '\n';
    const auto* folders = findInterface<CMStatusCacheFolders>(folder);
    if (folders == nullptr)
        return;
    const auto counts = folders->getFolderSummary(folder.getRootFolder()).below;
    lines << "entries: " << counts.total() << " in " << folders->getFolders().size() << " folders";
    const char* separator = ": ";
    for (auto i = LocalStatus::NotUnderSourceControl; i <= LocalStatus::Unknown;
         i = static_cast<LocalStatus>(static_cast<std::uint32_t>(i) + 1)) {
        if (counts[i] != 0)
            lines << std::exchange(separator, ", ") << counts[i] << ' ' << toString(i);
    }
    lines << '\n';
}

void describeFreshness(Lines& lines, ManagedFolder& folder) {
    const auto* cache = findInterface<CMStatusCacheFreshness>(folder);
    if (cache == nullptr)
        return;
    const auto freshness = cache->getFreshness(folder.getRootFolder());
    lines << "freshness of the root: ";
    if (freshness.answeredAt) {
        const std::chrono::duration<double> age =
            std::chrono::steady_clock::now() - *freshness.answeredAt;
        lines << "answered " << std::fixed << std::setprecision(3) << age.count() << " s ago";
    } else {
        lines << "never answered";
    }
    using Refresh = Freshness::Refresh;
    lines << (freshness.refresh == Refresh::None      ? ", nothing pending"
              : freshness.refresh == Refresh::Waiting ? ", a refresh is queued"
              : freshness.refresh == Refresh::Running ? ", a refresh is running"
                                                      : ", to be retried")
          << '\n';
    if (freshness.failure != nullptr)
        lines << "newest refresh failed: " << textOf(freshness.failure) << '\n';
}

void describeBranch(Lines& lines, ManagedFolder& folder) {
    auto* cache = folder.getBranchStateCache();
    if (cache == nullptr)
        return;
    const auto known = cache->getBranchState();
    if (known.state) {
        const auto& branch = known.state->branch;
        lines << "branch: " << (branch.empty() ? "none checked out" : toUtf8(branch))
              << (known.state->operation == OngoingOperation::None ? ""
                                                                   : ", an operation in progress")
              << '\n';
    }
    if (known.isRefreshing)
        lines << "branch state: being read\n";
    if (known.error != nullptr)
        lines << "branch state: cannot be read: " << textOf(known.error) << '\n';
}

void describeRefreshes(Lines& lines, ManagedFolder& folder) {
    if (const auto* cache = findInterface<CMStatusCacheStatistics>(folder))
        lines << describe(cache->getStatistics());
}

void describeEvents(Lines& lines, ManagedFolder& folder) {
    if (const auto* pooled = findInterface<PooledManagedFolder>(folder))
        lines << pooled->describeUpdater();
}

// A section each, in the order of the text.
constexpr void (*sections[])(Lines&, ManagedFolder&) = {describeWatches,   describeEntries,
                                                        describeFreshness, describeBranch,
                                                        describeRefreshes, describeEvents};

} // namespace

std::string describeClients(const ManagedFolder& folder,
                            const std::map<std::string, std::uint64_t>& clients) {
    Lines lines;
    lines.imbue(std::locale::classic());
    lines << "root: " << folder.getRootFolder().toUtf8() << '\n'
          << "system: " << toUtf8(folder.getSystemName()) << '\n'
          << "system id: " << folder.getSystemID() << '\n'
          << "UUID: " << folder.getUUID() << '\n';
    for (const auto& [identifier, count] : clients)
        lines << "client: " << identifier << ' ' << count << '\n';
    return lines.str();
}

std::string describe(ManagedFolder& folder) {
    Lines lines;
    lines.imbue(std::locale::classic());
    try {
        lines << describeClients(folder, folder.getClients());
    } catch (...) {
        lines << "error: " << textOf(std::current_exception()) << '\n';
    }
    for (const auto section : sections) {
        try {
            section(lines, folder);
        } catch (...) {
            lines << "error: " << textOf(std::current_exception()) << '\n';
        }
    }
    return lines.str();
}

} // namespace quendo
