#include "quendo/platform/standard/StandardFolderDeletionWatcher.h"

#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/MountTable.h"
#include "quendo/platform/Services.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>
#include <thread>
#include <vector>

namespace quendo::platform {
namespace {

constexpr std::chrono::milliseconds retryInterval{250};

/// Tells one folder from another. Device and inode alone do not: a file system gives the number of
/// a folder that was deleted to the next one that is made, often at once. Its handle counts how
/// often the number was given; where there is none, the time of birth helps.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    std::int64_t birthSecond = 0;
    std::uint32_t birthNanosecond = 0;
    std::string handle;

    friend bool operator==(const Identity&, const Identity&) = default;
};

std::string handleOf(const std::string& folder) {
    struct alignas(file_handle) Buffer {
        std::array<std::byte, sizeof(file_handle) + MAX_HANDLE_SZ> bytes{};
    } buffer;
    auto* const handle = reinterpret_cast<file_handle*>(buffer.bytes.data());
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mount = 0;
    if (name_to_handle_at(AT_FDCWD, folder.c_str(), handle, &mount, 0) != 0)
        return {};
    return {reinterpret_cast<const char*>(handle->f_handle), handle->handle_bytes};
}

std::optional<Identity> identify(const std::string& folder) {
    struct statx what {};
    if (statx(AT_FDCWD, folder.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_TYPE | STATX_INO | STATX_BTIME, &what) != 0 ||
        !S_ISDIR(what.stx_mode))
        return std::nullopt;
    Identity identity{makedev(what.stx_dev_major, what.stx_dev_minor), what.stx_ino, 0, 0, {}};
    if ((what.stx_mask & STATX_BTIME) != 0) {
        identity.birthSecond = what.stx_btime.tv_sec;
        identity.birthNanosecond = what.stx_btime.tv_nsec;
    }
    identity.handle = handleOf(folder);
    return identity;
}

/// What the watcher shares with its watches.
///
/// Finding out which folder is at the path may hang when it lies in a remote file system, and the
/// folder watcher's thread, which calls look(), serves others. So that is left to a strand then,
/// and never done under the lock.
class Deletion : public std::enable_shared_from_this<Deletion> {
public:
    explicit Deletion(const Path& folder) : m_path(folder), m_folder(folder.toNative()) {}

    /// From now on another folder is another one.
    void remember() {
        auto identity = identify(m_folder);
        {
            const std::lock_guard lock(m_mutex);
            m_isDeleted = !identity.has_value();
            m_identity = std::move(identity);
            m_isRemembered = true;
            if (!m_wasCalledEarly)
                return;
        }
        find();
    }

    /// @throws std::bad_alloc, std::system_error when it has to be called again
    void look() {
        {
            const std::lock_guard lock(m_mutex);
            if (!m_isRemembered)
                m_wasCalledEarly = true;
            if (!m_isRemembered || m_isTold || m_isClosed)
                return;
        }
        if (mayHang(m_path))
            findLater();
        else
            find();
    }

    /// Waits for a listener under way, unless it is the one that closes it; none is called later.
    void close() {
        // Of a watcher that goes in one of its listeners, those behind are not called.
        m_deleted.disconnect_all_slots();
        std::unique_lock lock(m_mutex);
        m_isClosed = true;
        m_hasTold.wait(lock, [&] {
            return m_teller == std::thread::id() || m_teller == std::this_thread::get_id();
        });
    }

    bool isDeleted() const { return m_isDeleted; }
    boost::signals2::signal<void()>& signal() { return m_deleted; }

private:
    void findLater() {
        m_strand->post([self = shared_from_this()] {
            try {
                self->find();
            } catch (...) {
                QUENDO_LOG_CAUGHT_EXCEPTION();
                self->retryLater();
            }
        });
    }

    void retryLater() noexcept {
        try {
            m_delayedTasks->runAfter(retryInterval, [weak = weak_from_this()] {
                const auto self = weak.lock();
                if (self == nullptr)
                    return;
                try {
                    self->findLater();
                } catch (...) {
                    QUENDO_LOG_CAUGHT_EXCEPTION();
                    self->retryLater();
                }
            });
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION(); // the next event calls look() again
        }
    }

    /// @throws as look()
    void find() {
        const bool isOther = !m_isDeleted && identify(m_folder) != m_identity;
        {
            const std::lock_guard lock(m_mutex);
            if (isOther)
                m_isDeleted = true;
            if (!m_isDeleted || m_isTold || m_isClosed)
                return;
            m_isTold = true;
            m_teller = std::this_thread::get_id();
        }
        std::exception_ptr again;
        try {
            m_deleted();
        } catch (const std::bad_alloc&) {
            again = std::current_exception();
        } catch (const std::system_error&) {
            again = std::current_exception();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
        {
            const std::lock_guard lock(m_mutex);
            m_isTold = again == nullptr;
            m_teller = {};
        }
        m_hasTold.notify_all();
        if (again != nullptr)
            std::rethrow_exception(again);
    }

    const Path m_path;
    const std::string m_folder;
    const std::shared_ptr<Executor> m_strand = createStrandExecutor("FolderDeletion");
    const std::shared_ptr<DelayedTaskService> m_delayedTasks = services()->delayedTasks;
    std::optional<Identity> m_identity; ///< written once, before m_isRemembered
    std::atomic<bool> m_isDeleted = false;
    boost::signals2::signal<void()> m_deleted;

    std::mutex m_mutex;
    std::condition_variable m_hasTold;
    // Guarded by it:
    bool m_isRemembered = false;
    bool m_wasCalledEarly = false; ///< before that
    bool m_isTold = false;
    bool m_isClosed = false;
    std::thread::id m_teller;
};

class StandardFolderDeletionWatcher final : public FolderDeletionWatcher {
public:
    StandardFolderDeletionWatcher(const Path& folder, FolderWatcher& watcher)
        : m_deletion(std::make_shared<Deletion>(folder)) {
        for (auto watched = folder; !watched.empty(); watched = watched.parentPath())
            m_watches.push_back(
                watcher.watch(watched, FolderWatcher::Scope::Itself,
                              [deletion = m_deletion](const FolderEvent&) { deletion->look(); }));
        // Behind the watches: what happens from here on is told.
        m_deletion->remember();
    }

    ~StandardFolderDeletionWatcher() override { m_deletion->close(); }

    boost::signals2::connection onDeleted(const Slot& slot) override {
        return m_deletion->signal().connect(slot);
    }

    bool isDeleted() const override { return m_deletion->isDeleted(); }

private:
    const std::shared_ptr<Deletion> m_deletion;
    std::vector<std::unique_ptr<FolderWatcher::Watch>> m_watches;
};

} // namespace

StandardFolderDeletionWatcherFactory::StandardFolderDeletionWatcherFactory(
    std::shared_ptr<FolderWatcher> watcher)
    : m_watcher(std::move(watcher)) {}

std::unique_ptr<FolderDeletionWatcher>
StandardFolderDeletionWatcherFactory::watch(const Path& folder) {
    const auto watcher = m_watcher != nullptr ? m_watcher : services()->folderWatcher;
    return std::make_unique<StandardFolderDeletionWatcher>(folder, *watcher);
}

} // namespace quendo::platform
