#include "quendo/cache/RefreshLedger.h"

#include "quendo/cache/CacheBarrier.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>
#include <utility>

namespace quendo {
namespace {

// Beyond this the records of single files would weigh more than what they tell is worth: 128 bytes
// each, 8 MB.
constexpr std::size_t mostFileRecords = 65536;

bool isInside(const Path& path, const Path& folder) noexcept {
    return path == folder || path.isBelow(folder);
}

/// What lies in `folder` shares its text as a beginning, so it stands together but for neighbours
/// such as "folder-2".
template <class Records>
void eraseInside(Records& records, const Path& folder) {
    auto at = records.lower_bound(folder);
    while (at != records.end() && at->first.string().starts_with(folder.string()))
        at = isInside(at->first, folder) ? records.erase(at) : std::next(at);
}

/// Takes out of `owed` what is asked for by a newer request there as well, so that what fails again
/// and again is owed once. Fails for lack of memory only, before anything has changed.
void dropRepeated(RefreshRequests& owed, RefreshRequests& dropped) {
    std::unordered_map<Path, const RefreshRequest*> newest;
    for (const auto& request : owed) {
        if (request.isOfFolder())
            newest[request.folder] = &request;
        for (const auto& file : request.files)
            newest[file] = &request;
    }
    for (auto at = owed.begin(); at != owed.end();) {
        const auto each = at++;
        const auto isRepeated = [&](const Path& path) {
            return newest.find(path)->second != &*each;
        };
        bool isEmpty = each->isOfFolder() && isRepeated(each->folder);
        if (!each->isOfFolder()) {
            std::erase_if(each->files, isRepeated);
            isEmpty = each->files.empty();
        }
        if (isEmpty)
            dropped.splice(dropped.end(), owed, each);
    }
}

} // namespace

bool RefreshRequest::covers(const Path& path) const noexcept {
    return isOfFolder() ? isInside(path, folder) : std::ranges::find(files, path) != files.end();
}

void RefreshLedger::start(RefreshRequests& requests) noexcept {
    const std::lock_guard lock(m_mutex);
    m_running.splice(m_running.end(), requests);
}

void RefreshLedger::succeed(TimePoint queryStart) noexcept {
    RefreshRequests done; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    for (const auto& request : m_running) {
        try {
            noteAnswer(request, queryStart);
        } catch (...) {
            // Without the record the answer is taken for older than it is, and asked for again.
            QUENDO_LOG_CAUGHT_EXCEPTION();
        }
    }
    done.swap(m_running);
}

void RefreshLedger::noteAnswer(const RefreshRequest& request, TimePoint queryStart) {
    if (request.isOfFolder()) {
        const auto& folder = request.folder;
        m_owedFolders.remove_if([&](const auto& owed) { return isInside(owed.folder, folder); });
        m_owedFiles.remove_if([&](auto& owed) {
            std::erase_if(owed.files, [&](const Path& file) { return isInside(file, folder); });
            return owed.files.empty();
        });
        eraseInside(m_answeredFiles, folder);
        eraseInside(m_answeredFolders, folder);
        m_answeredFolders[folder] = queryStart;
        return;
    }
    if (!m_owedFiles.empty()) {
        std::vector<Path> answered(request.files);
        std::ranges::sort(answered);
        m_owedFiles.remove_if([&](auto& owed) {
            std::erase_if(owed.files, [&](const Path& file) {
                return std::ranges::binary_search(answered, file);
            });
            return owed.files.empty();
        });
    }
    for (const auto& file : request.files)
        m_answeredFiles[file] = queryStart;
    if (m_answeredFiles.size() > mostFileRecords)
        forgetOldest();
}

void RefreshLedger::forgetOldest() {
    std::vector<TimePoint> times;
    times.reserve(m_answeredFiles.size());
    for (const auto& [file, time] : m_answeredFiles)
        times.push_back(time);
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::ranges::nth_element(times, middle);
    std::erase_if(m_answeredFiles, [&](const auto& record) { return record.second <= *middle; });
}

void RefreshLedger::fail(const std::exception_ptr& failure) noexcept {
    RefreshRequests dropped; // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    while (!m_running.empty()) {
        auto& request = m_running.front();
        auto& target = request.barrier != nullptr && !request.barrier->isActive() ? dropped
                       : request.isOfFolder()                                     ? m_owedFolders
                                                                                  : m_owedFiles;
        request.failure = failure;
        request.barrier.reset();
        target.splice(target.end(), m_running, m_running.begin());
    }
    try {
        dropRepeated(m_owedFiles, dropped);
        dropRepeated(m_owedFolders, dropped);
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

void RefreshLedger::skip() noexcept {
    fail(nullptr);
}

std::size_t RefreshLedger::owedRounds(bool folders) const noexcept {
    const std::lock_guard lock(m_mutex);
    return folders ? m_owedFolders.size() : m_owedFiles.empty() ? 0 : 1;
}

bool RefreshLedger::retry(bool folders) noexcept {
    const std::lock_guard lock(m_mutex);
    if (folders && !m_owedFolders.empty())
        m_running.splice(m_running.end(), m_owedFolders, m_owedFolders.begin());
    else if (!folders)
        m_running.splice(m_running.end(), m_owedFiles);
    return !m_running.empty();
}

Freshness RefreshLedger::getFreshness(const Path& path) const {
    Freshness result;
    const auto note = [&](const std::map<Path, TimePoint>& records, const Path& key) {
        if (const auto found = records.find(key);
            found != records.end() && (!result.answeredAt || *result.answeredAt < found->second))
            result.answeredAt = found->second;
    };
    const std::lock_guard lock(m_mutex);
    note(m_answeredFiles, path);
    for (Path folder = path; !folder.empty(); folder = folder.parentPath())
        note(m_answeredFolders, folder);
    const auto covers = [&](const RefreshRequest& request) { return request.covers(path); };
    for (const auto* owed : {&m_owedFiles, &m_owedFolders}) {
        const auto newest = std::find_if(owed->rbegin(), owed->rend(), covers);
        if (newest == owed->rend())
            continue;
        result.refresh = Freshness::Refresh::Owed;
        if (newest->failure != nullptr)
            result.failure = newest->failure;
    }
    if (std::ranges::any_of(m_running, covers))
        result.refresh = Freshness::Refresh::Running;
    return result;
}

} // namespace quendo
