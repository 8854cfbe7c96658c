#include "quendo/platform/standard/StandardFolderDeletionWatcher.h"

#include "quendo/platform/FolderWatcher.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace quendo::platform {
namespace {

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
class Deletion {
public:
    explicit Deletion(const Path& folder) : m_folder(folder.toNative()) {}

    /// From now on another folder is another one.
    void remember() {
        const std::lock_guard lock(m_mutex);
        m_identity = identify(m_folder);
        m_isRemembered = true;
        m_isDeleted = !m_identity.has_value();
    }

    void look() {
        {
            const std::lock_guard lock(m_mutex);
            if (!m_isRemembered || m_isDeleted || identify(m_folder) == m_identity)
                return;
            m_isDeleted = true;
        }
        try {
            m_deleted();
        } catch (...) {
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }

    bool isDeleted() const { return m_isDeleted; }
    boost::signals2::signal<void()>& signal() { return m_deleted; }

private:
    const std::string m_folder;
    std::mutex m_mutex;
    std::optional<Identity> m_identity;
    bool m_isRemembered = false;
    std::atomic<bool> m_isDeleted = false;
    boost::signals2::signal<void()> m_deleted;
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

    ~StandardFolderDeletionWatcher() override {
        // Of a watcher that goes in one of its listeners, those behind are not called.
        m_deletion->signal().disconnect_all_slots();
    }

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
