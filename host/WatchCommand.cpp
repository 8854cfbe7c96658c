#include "host/WatchCommand.h"

#include "host/HostError.h"
#include "host/Interrupts.h"
#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Services.h"

#include <CLI/App.hpp>

#include <array>
#include <condition_variable>
#include <deque>
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>

namespace quendo::host {
namespace {

/// What the library tells, on threads of its own, kept for the program's. Only notes; whatever
/// takes time is done by who takes.
class Feed {
public:
    struct News {
        std::deque<StatusChanges> changes;
        std::optional<std::string> failure; ///< of the newest refresh; empty when it succeeded
        bool isStopped = false;
        bool hasGone = false;
    };

    void addChanges(const StatusChanges& changes) {
        add([&] { m_news.changes.push_back(changes); });
    }
    void addFailure(std::string text) {
        add([&] { m_news.failure = std::move(text); });
    }
    /// Something else may have changed: look.
    void wake() {
        add([] {});
    }
    void tellGone() {
        add([&] { m_news.hasGone = true; });
    }
    void stop() {
        add([&] { m_news.isStopped = true; });
    }

    /// Waits for news.
    News take() {
        std::unique_lock lock(m_mutex);
        m_came.wait(lock, [this] { return std::exchange(m_hasCome, false); });
        return std::exchange(m_news, {});
    }

private:
    template <class Action>
    void add(Action action) {
        const std::lock_guard lock(m_mutex);
        action();
        m_hasCome = true;
        m_came.notify_one();
    }

    std::mutex m_mutex;
    std::condition_variable m_came;
    bool m_hasCome = false;
    News m_news;
};

/// Why the newest refresh of `path` failed; empty when it did not.
std::string failureOf(const ManagedFolder& folder, const Path& path) {
    const auto& freshness = dynamic_cast<const CMStatusCacheFreshness&>(folder.getCache());
    const auto failure = freshness.getFreshness(path).failure;
    if (failure == nullptr)
        return {};
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "an unknown error";
    }
}

/// Says on standard error what keeps the program from telling the truth, each thing once.
class Blindness {
public:
    explicit Blindness(const WorkingCopy& copy)
        : m_copy(copy), m_watcher(platform::services()->folderWatcher),
          m_folders(dynamic_cast<CMStatusCacheFolders&>(copy.folder->getCache())) {}

    void tellGone() {
        writeError(visiblePath(m_copy.root) + " has gone; waiting for its return");
        m_isGone = true;
    }

    /// @param failure of the newest refresh, if there was one since the last look
    void look(std::optional<std::string> failure) {
        if (failure)
            m_failure = *std::move(failure);
        if (m_isGone && platform::services()->files->isDirectory(m_copy.root) &&
            m_failure.empty()) {
            m_isGone = false;
            writeError(visiblePath(m_copy.root) + " is back");
        }
        if (m_isGone)
            return; // nothing to tell of what lies there, nor that anything is well again
        tell(m_toldFailure, m_failure, "cannot be refreshed: ", "is refreshed again");
        const auto [poor, reason] = poorWatch();
        tell(m_poorWatch, reason,
             "changes are told seconds late in " + std::to_string(poor) +
                 (poor == 1 ? " folder: " : " folders: "),
             "is watched by the system again");
    }

private:
    void tell(std::string& told, std::string now, const std::string& what, const char* over) const {
        if (told == now)
            return;
        if (now.empty())
            writeError(visiblePath(m_copy.root) + " " + over);
        else
            writeError(visiblePath(m_copy.root) + ": " + what + visibleText(now));
        told = std::move(now);
    }

    /// How many folders are there and not watched natively, and the reason of the first.
    std::pair<std::size_t, std::string> poorWatch() const {
        auto folders = m_folders.getFolders();
        folders.push_back(m_copy.root);
        std::set<Path> poor;
        std::string reason;
        for (const auto& folder : folders) {
            const auto health = m_watcher->getHealth(folder);
            // One that was deleted, or gave way to a link, is polled for its return, which the
            // folder above it tells.
            std::error_code none;
            if (health.means == platform::WatchHealth::Means::Polled &&
                std::filesystem::is_directory(
                    std::filesystem::symlink_status(folder.toNative(), none)) &&
                poor.insert(folder).second && poor.size() == 1)
                reason = health.reason.empty() ? "not watched by the system" : health.reason;
        }
        return {poor.size(), reason};
    }

    const WorkingCopy& m_copy;
    const std::shared_ptr<platform::FolderWatcher> m_watcher;
    const CMStatusCacheFolders& m_folders;
    bool m_isGone = false;
    std::string m_failure, m_toldFailure, m_poorWatch;
};

} // namespace

CLI::App* WatchCommand::describe(CLI::App& program) {
    auto* app =
        program.add_subcommand("watch", "Show what differs, and then every change as it happens");
    app->add_option("PATH", folder, "The folder to watch (default: this one)");
    app->add_flag("--all", selection.all, "Unmodified paths as well");
    app->add_flag("--ignored", selection.ignored, "Ignored paths as well");
    app->add_flag("--json", json, "One JSON object a line");
    app->footer("It goes on until it is interrupted (Ctrl-C). What keeps it from telling the\n"
                "truth stands on standard error.\n"
                "Examples:\n"
                "  quendo watch                        this folder\n"
                "  quendo watch --json src             for a program");
    return app;
}

void WatchCommand::run() const {
    const auto copy = WorkingCopy::ofFolder(folder);
    const auto current = currentFolder();
    auto& cache = copy.folder->getCache();
    auto& changes = dynamic_cast<CMStatusCacheChanges&>(cache);
    StatusReport report{copy.systemName(), copy.root, copy.path, {}, selection};
    const auto feed = std::make_shared<Feed>();
    const boost::signals2::scoped_connection stopped = copy.folder->getTerminator().connect([feed] {
        if (Interrupts::received() != 0)
            feed->stop();
    });
    Session session(copy.interactor());
    cache.setFolderStatusFlag(true);
    cache.refreshFolder(copy.path)->wait();

    const std::array<boost::signals2::scoped_connection, 4> connections{
        changes.connectChanges([feed](const auto& changed) { feed->addChanges(changed); }),
        // The error stays on the thread that made it, and its text is handed over.
        cache.connectTasksFinished(
            [feed, weak = std::weak_ptr(copy.folder), path = copy.path](const auto&) {
                if (const auto managed = weak.lock())
                    feed->addFailure(failureOf(*managed, path));
            }),
        copy.folder->connectDeleted([feed] { feed->tellGone(); }),
        platform::services()->folderWatcher->connectHealthChanged(
            [feed](const auto&, const auto&) { feed->wake(); })};
    auto listing = changes.listStatuses(copy.path);
    report.states = {listing.states.begin(), listing.states.end()};
    session.finishFirst(json ? jsonStatus(report) : humanStatus(report, current, wantsColours()));
    report.states.clear();
    listing.states = {};
    Blindness blindness(copy);
    for (Feed::News news;;) {
        blindness.look(std::move(news.failure));
        news = feed->take();
        if (news.isStopped) {
            // What is being asked is ended with all that git has started before the process goes.
            cache.stop();
            platform::services()->executors->getSourceControlExecutor()->runSyncTask([] {});
            throw Interrupted();
        }
        for (auto& changed : news.changes) {
            if (changed.version > listing.version)
                writeOutput(json ? jsonChanges(report, std::move(changed.changes))
                                 : humanChanges(report, std::move(changed.changes), current,
                                                wantsColours()));
        }
        if (news.hasGone)
            blindness.tellGone();
    }
}

} // namespace quendo::host
