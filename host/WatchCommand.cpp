#include "host/WatchCommand.h"

#include "host/BranchPrinter.h"
#include "host/HostError.h"
#include "host/Interrupts.h"
#include "host/JsonText.h"
#include "host/OutputWatch.h"
#include "host/Session.h"
#include "host/SignalWatch.h"
#include "host/StandardStreams.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/cache/BranchStateCache.h"
#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CMStatusCacheFolders.h"
#include "quendo/cache/CMStatusCacheFreshness.h"
#include "quendo/exception/ErrorText.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/FileUtilities.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Services.h"
#include "quendo/pool/FolderDump.h"

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace quendo::host {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// While folders come and go, one may be polled for a moment because the folder above it is not
/// watched yet; at the longest until the watcher polls next (2 s). That is not worth a message.
constexpr auto passingPoorWatch = 5s;

/// What is to be refreshed again because it could not be.
struct StaleNews {
    std::string why;         ///< empty when nothing is
    std::string_view reason; ///< of the first refresh that was not answered
    std::chrono::system_clock::time_point since;
};

/// What the library tells, on threads of its own, kept for the program's. Only notes; whatever
/// takes time is done by who takes.
class Feed {
public:
    struct News {
        std::deque<StatusChanges> changes;
        std::optional<StaleNews> stale;
        bool isStopped = false;
        bool isUnread = false; ///< nobody reads the output any more
        bool hasGone = false;
        bool hasOtherBranch = false;
    };

    void addChanges(const StatusChanges& changes) {
        add([&] { m_news.changes.push_back(changes); });
    }
    void addStale(StaleNews stale) {
        add([&] { m_news.stale = std::move(stale); });
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
    void tellUnread() {
        add([&] { m_news.isUnread = true; });
    }
    void tellOtherBranch() {
        add([&] { m_news.hasOtherBranch = true; });
    }

    /// Waits until `isDone`, which is called again at each piece of news, or until stop().
    template <class Condition>
    void waitUntil(Condition isDone) {
        std::unique_lock lock(m_mutex);
        m_came.wait(lock, [&] { return m_news.isStopped || isDone(); });
    }

    /// Waits for news, at the longest until `limit`.
    News take(std::optional<Clock::time_point> limit) {
        std::unique_lock lock(m_mutex);
        const auto hasCome = [this] { return std::exchange(m_hasCome, false); };
        if (limit)
            m_came.wait_until(lock, *limit, hasCome);
        else
            m_came.wait(lock, hasCome);
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

/// "12:00:59", local.
std::string timeText(std::chrono::system_clock::time_point when) {
    const auto time = std::chrono::system_clock::to_time_t(when);
    std::tm parts{};
    ::localtime_r(&time, &parts);
    char buffer[16];
    return {buffer, std::strftime(buffer, sizeof buffer, "%H:%M:%S", &parts)};
}

StaleNews staleNewsOf(const std::optional<Staleness>& staleness) {
    if (!staleness || staleness->cause == Staleness::Cause::Requested)
        return {};
    const auto age = Clock::now() - staleness->since;
    StaleNews news{"a request was cancelled", toString(staleness->reason),
                   std::chrono::system_clock::now() -
                       std::chrono::duration_cast<std::chrono::system_clock::duration>(age)};
    if (staleness->cause == Staleness::Cause::Interrupted)
        news.why = "other work was more urgent";
    if (staleness->failure == nullptr)
        return news;
    news.why = exception::errorText(staleness->failure);
    return news;
}

/// An object on a line; "stale" is null when nothing is.
std::string jsonStale(const StaleNews& news, const WorkingCopy& copy) {
    nlohmann::ordered_json line;
    line["system"] = copy.systemName();
    putPath(line, copy.root, "root");
    auto& stale = line["stale"];
    if (!news.why.empty()) {
        stale["since"] =
            std::chrono::floor<std::chrono::seconds>(news.since).time_since_epoch().count();
        stale["reason"] = news.reason;
        stale["why"] = toUtf8(toUString(news.why)); // valid, whatever was thrown
    }
    return jsonLine(line);
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

    /// @param stale what has changed about it since the last look
    /// @return when to look again even if nothing happens
    std::optional<Clock::time_point> look(std::optional<StaleNews> stale) {
        if (stale)
            m_failure = stale->why.empty() ? std::string()
                                           : stale->why + " (what is shown may be outdated since " +
                                                 timeText(stale->since) + ")";
        if (m_isGone && platform::services()->files->isDirectory(m_copy.root) &&
            m_failure.empty()) {
            m_isGone = false;
            writeError(visiblePath(m_copy.root) + " is back");
        }
        if (m_isGone)
            return {}; // nothing to tell of what lies there, nor that anything is well again
        tell(m_toldFailure, m_failure, "cannot be refreshed: ", "is refreshed again");
        const auto [poor, reason, next] = poorWatch();
        tell(m_poorWatch, reason,
             "changes are told seconds late in " + std::to_string(poor) +
                 (poor == 1 ? " folder: " : " folders: "),
             "is watched by the system again");
        return next;
    }

private:
    struct PoorWatch {
        std::size_t folders = 0;
        std::string reason;                    ///< of the first
        std::optional<Clock::time_point> next; ///< when one may count that does not yet
    };

    void tell(std::string& told, std::string now, const std::string& what, const char* over) const {
        if (told == now)
            return;
        if (now.empty())
            writeError(visiblePath(m_copy.root) + " " + over);
        else
            writeError(visiblePath(m_copy.root) + ": " + what + visibleText(now));
        told = std::move(now);
    }

    /// The folders that are there and have not been watched natively for a while, or were not at
    /// the first look.
    PoorWatch poorWatch() {
        auto folders = m_folders.getFolders();
        folders.push_back(m_copy.root);
        const auto now = Clock::now();
        const auto start = std::exchange(m_hasLooked, true) ? now : now - passingPoorWatch;
        std::map<Path, Clock::time_point> poor; // and since when
        PoorWatch result;
        for (const auto& folder : folders) {
            const auto health = m_watcher->getHealth(folder);
            // One that was deleted, or gave way to a link, is polled for its return, which the
            // folder above it tells.
            std::error_code none;
            if (health.means != platform::WatchHealth::Means::Polled ||
                !std::filesystem::is_directory(
                    std::filesystem::symlink_status(folder.toNative(), none)))
                continue;
            const auto known = m_poorSince.find(folder);
            const auto since = known == m_poorSince.end() ? start : known->second;
            if (!poor.emplace(folder, since).second)
                continue;
            if (const auto counts = since + passingPoorWatch; counts > now)
                result.next = std::min(result.next.value_or(counts), counts);
            else if (++result.folders == 1)
                result.reason = health.reason.empty() ? "not watched by the system" : health.reason;
        }
        m_poorSince = std::move(poor);
        return result;
    }

    const WorkingCopy& m_copy;
    const std::shared_ptr<platform::FolderWatcher> m_watcher;
    const CMStatusCacheFolders& m_folders;
    bool m_isGone = false;
    bool m_hasLooked = false;
    std::map<Path, Clock::time_point> m_poorSince;
    std::string m_failure, m_toldFailure, m_poorWatch;
};

/// The branch and the operation in progress, as they are printed.
class BranchDisplay {
public:
    BranchDisplay(const WorkingCopy& copy, const WatchCommand& command,
                  const std::shared_ptr<Feed>& feed)
        : m_copy(copy), m_isJson(command.json),
          m_cache(command.json && !command.branch ? nullptr : copy.folder->getBranchStateCache()) {
        if (m_cache != nullptr)
            m_connection =
                m_cache->connectChanged([feed](const auto&) { feed->tellOtherBranch(); });
    }

    /// Whether the first read has ended, or there is nothing to read.
    bool isRead() const {
        if (m_cache == nullptr)
            return true;
        const auto known = m_cache->getBranchState();
        return known.state || known.error != nullptr;
    }

    /// What to print; empty when that has not changed, or the branch cannot be read. Then the
    /// states cannot be refreshed either, which is told.
    std::string next() {
        if (m_cache == nullptr)
            return {};
        const auto state = m_cache->getBranchState().state;
        if (!state)
            return {};
        auto text = m_isJson ? jsonBranch(*state, m_copy.root, m_copy.systemName())
                             : humanBranch(*state, wantsColours());
        return text == m_shown ? std::string() : m_shown = std::move(text);
    }

private:
    const WorkingCopy& m_copy;
    const bool m_isJson;
    BranchStateCache* const m_cache;
    std::string m_shown;
    boost::signals2::scoped_connection m_connection;
};

} // namespace

CLI::App* WatchCommand::describe(CLI::App& program) {
    auto* app =
        program.add_subcommand("watch", "Show what differs, and then every change as it happens");
    app->add_option("PATH", folder, "The folder to watch (default: this one)");
    app->add_flag("--all", selection.all, "Unmodified paths as well");
    app->add_flag("--ignored", selection.ignored, "Ignored paths as well");
    app->add_flag("--json", json, "One JSON object a line");
    app->add_flag("--branch", branch, "With --json: also an object for branch and operation");
    app->add_flag("--stale", stale, "With --json: also an object when states may be outdated");
    app->add_flag("--debug", debug,
                  "On SIGUSR1 describe queue, queries, retries, watches and the last events on\n"
                  "standard error: attach that to a report of an outdated state");
    app->footer(
        "It goes on until it is interrupted (Ctrl-C) or nobody reads its output. What keeps\n"
        "it from telling the truth stands on standard error.\n"
        "Examples:\n"
        "  quendo watch                        this folder\n"
        "  quendo watch --json src             for a program");
    app->final_callback([this] {
        if (branch && !json)
            throw CLI::ValidationError("--branch needs --json");
        if (stale && !json)
            throw CLI::ValidationError("--stale needs --json");
    });
    return app;
}

void WatchCommand::run() const {
    std::optional<SignalWatch> signalWatch; // before the threads of the library
    if (debug)
        signalWatch.emplace(SIGUSR1);
    const auto copy = WorkingCopy::ofFolder(folder);
    const auto current = currentFolder();
    auto& cache = copy.folder->getCache();
    auto& changes = dynamic_cast<CMStatusCacheChanges&>(cache);
    auto& freshness = dynamic_cast<CMStatusCacheFreshness&>(cache);
    StatusReport report{copy.systemName(), copy.root, copy.path, {}, selection};
    const auto feed = std::make_shared<Feed>();
    const boost::signals2::scoped_connection stopped = copy.folder->getTerminator().connect([feed] {
        if (Interrupts::received() != 0)
            feed->stop();
    });
    Session session(copy.interactor());
    // Before the first query, and on a thread of its own, so that it also describes a query that
    // hangs.
    std::optional<SignalCaller> describing;
    if (signalWatch)
        describing.emplace(*signalWatch, [&folder = *copy.folder] {
            std::fputs(quendo::describe(folder).c_str(), stderr);
        });
    cache.setFolderStatusFlag(true);
    BranchDisplay branchDisplay(copy, *this, feed); // reads beside the query of the states
    cache.refreshFolder(copy.path)->wait();

    const std::array<boost::signals2::scoped_connection, 5> connections{
        changes.connectChanges([feed](const auto& changed) { feed->addChanges(changed); }),
        // The error stays on the thread that made it, and its text is handed over.
        cache.connectTasksFinished([feed](const auto&) { feed->wake(); }),
        // The error stays on the thread that made it, and its text is handed over.
        freshness.connectStalenessChanged(
            [feed](const auto& staleness) { feed->addStale(staleNewsOf(staleness)); }),
        copy.folder->connectDeleted([feed] { feed->tellGone(); }),
        platform::services()->folderWatcher->connectHealthChanged(
            [feed](const auto&, const auto&) { feed->wake(); })};
    feed->addStale(staleNewsOf(freshness.getStaleness()));
    auto listing = changes.listStatuses(copy.path);
    report.states = {listing.states.begin(), listing.states.end()};
    Blindness blindness(copy);
    try {
        const auto states =
            json ? jsonStatus(report) : humanStatus(report, current, wantsColours());
        feed->waitUntil([&] { return branchDisplay.isRead(); });
        const auto first = branchDisplay.next();
        session.finishFirst(json ? first + states : states + first);
        report.states.clear();
        listing.states = {};
        auto toldStale = jsonStale({}, copy);
        const OutputWatch outputWatch([feed] { feed->tellUnread(); });
        for (Feed::News news;;) {
            if (news.stale && stale) {
                auto line = jsonStale(*news.stale, copy);
                if (line != toldStale)
                    writeOutput(toldStale = std::move(line));
            }
            const auto next = blindness.look(std::move(news.stale));
            news = feed->take(next);
            if (news.isStopped)
                throw Interrupted();
            if (news.isUnread)
                refuseClosedOutput();
            if (news.hasOtherBranch)
                writeOutput(branchDisplay.next());
            for (auto& changed : news.changes) {
                if (changed.version > listing.version)
                    writeOutput(json ? jsonChanges(report, std::move(changed.changes))
                                     : humanChanges(report, std::move(changed.changes), current,
                                                    wantsColours()));
            }
            if (news.hasGone)
                blindness.tellGone();
        }
    } catch (...) {
        // What is being asked is ended with all that git has started before the process goes.
        cache.stop();
        copy.interactor()->getTerminationTrigger().trigger();
        platform::services()->executors->getSourceControlExecutor()->runSyncTask([] {});
        throw;
    }
}

} // namespace quendo::host
