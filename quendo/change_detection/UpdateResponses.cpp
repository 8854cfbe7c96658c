#include "quendo/change_detection/UpdateResponses.h"

#include "quendo/platform/Logging.h"

#include <utility>

namespace quendo {

std::function<void()> fullUpdateResponse(std::weak_ptr<CMStatusCache> cache) {
    return [cache = std::move(cache)] {
        QUENDO_TRACE_SCOPE();
        const RefreshReasonScope reason(RefreshReason::OwnOperation);
        if (const auto locked = cache.lock())
            locked->refreshAll();
    };
}

std::function<void()> nonBlockingFullUpdateResponse(std::weak_ptr<CMStatusCache> cache,
                                                    const Path& folder,
                                                    std::optional<RefreshReason> reason) {
    return [cache = std::move(cache), folder, reason] {
        QUENDO_TRACE_SCOPE();
        const RefreshReasonScope scope(reason.value_or(RefreshReasonScope::current()));
        if (const auto locked = cache.lock())
            locked->refreshFolder(folder);
    };
}

std::function<void(std::vector<Path>)> filesUpdateResponse(std::weak_ptr<CMStatusCache> cache) {
    return [cache = std::move(cache)](const std::vector<Path>& files) {
        QUENDO_TRACE_SCOPE();
        const RefreshReasonScope reason(RefreshReason::OwnOperation);
        if (const auto locked = cache.lock())
            locked->refreshCMStatuses(files)->wait();
    };
}

std::function<void(std::vector<Path>)> foldersUpdateResponse(std::weak_ptr<CMStatusCache> cache) {
    return [cache = std::move(cache)](const std::vector<Path>& folders) {
        QUENDO_TRACE_SCOPE();
        const RefreshReasonScope reason(RefreshReason::OwnOperation);
        if (const auto locked = cache.lock()) {
            for (const auto& folder : folders)
                locked->refreshFolder(folder);
        }
    };
}

} // namespace quendo
