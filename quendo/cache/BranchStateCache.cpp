#include "quendo/cache/BranchStateCache.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/exception/ErrorText.h"
#include "quendo/platform/DelayedTaskService.h"
#include "quendo/platform/EachSlot.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"

#include <boost/signals2/signal.hpp>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <utility>

namespace quendo {
namespace {

constexpr std::chrono::milliseconds firstRetry{1'000};
constexpr std::chrono::milliseconds longestRetry{60'000};

// A read is due when something may have changed since the last one started, or when that failed.
// At most one task is queued or running on the strand. It reads until nothing changed during a
// read; if that read failed, the timer queues the next task.
class State : public std::enable_shared_from_this<State> {
public:
    State(const std::shared_ptr<CMAdapter>& adapter, BranchInformation& branches)
        : m_adapter(adapter), m_branches(branches) {}

    CachedBranchState use() {
        const std::lock_guard lock(m_mutex);
        m_isUsed = true;
        if (m_isDue && !m_isRetryQueued)
            queueRead();
        return snapshot();
    }

    void refresh() noexcept {
        const std::lock_guard lock(m_mutex);
        m_isDue = true;
        if (m_isUsed)
            queueRead();
    }

    boost::signals2::signal<void(const CachedBranchState&), platform::EachSlot> changed;

private:
    void read() {
        for (bool goesOn = true; goesOn;) {
            {
                const std::lock_guard lock(m_mutex);
                m_isDue = false;
            }
            std::optional<BranchState> state;
            std::exception_ptr error;
            if (const auto adapter = m_adapter.lock()) {
                try {
                    state = m_branches.getBranchState();
                } catch (...) {
                    QUENDO_LOG_CAUGHT_EXCEPTION();
                    error = std::current_exception();
                }
            }
            auto errorText = exception::errorText(error);
            std::optional<CachedBranchState> news;
            {
                const std::lock_guard lock(m_mutex);
                goesOn = m_isDue;
                m_isQueued = goesOn;
                if (error == nullptr) {
                    m_retryDelay = firstRetry;
                } else if (!goesOn) {
                    m_isDue = true;
                    queueRetry();
                }
                const bool isNew = (state && state != m_state) || errorText != m_errorText;
                if (state)
                    m_state = std::move(state);
                m_error = std::move(error);
                m_errorText = std::move(errorText);
                if (isNew)
                    news = snapshot();
            }
            if (news)
                changed(*news);
        }
    }

    void retry() {
        const std::lock_guard lock(m_mutex);
        m_isRetryQueued = false;
        if (m_isDue)
            queueRead();
    }

    // The rest is called under the lock.

    CachedBranchState snapshot() const { return {m_state, m_error, m_isQueued}; }

    void queueRead() noexcept {
        if (m_isQueued)
            return;
        try {
            if (m_strand == nullptr)
                m_strand = m_services->executors->createStrandExecutor("CMBranchState");
            m_strand->post([weak = weak_from_this()] {
                if (const auto self = weak.lock())
                    self->read();
            });
            m_isQueued = true;
        } catch (...) {
            m_error = std::current_exception(); // it stays due: the next use or change tries again
        }
    }

    void queueRetry() noexcept {
        if (m_isRetryQueued)
            return;
        try {
            m_services->delayedTasks->runAfter(m_retryDelay, [weak = weak_from_this()] {
                if (const auto self = weak.lock())
                    self->retry();
            });
            m_isRetryQueued = true;
            m_retryDelay = std::min(2 * m_retryDelay, longestRetry);
        } catch (...) {
            // The next use or change reads.
        }
    }

    const std::weak_ptr<CMAdapter> m_adapter;
    BranchInformation& m_branches; ///< the adapter's
    const std::shared_ptr<const platform::Services> m_services = platform::services();

    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::optional<BranchState> m_state;
    std::exception_ptr m_error;
    std::string m_errorText; ///< of m_error
    std::shared_ptr<Executor> m_strand;
    std::chrono::milliseconds m_retryDelay = firstRetry;
    bool m_isUsed = false;
    bool m_isDue = true;
    bool m_isQueued = false; ///< a task is queued or running
    bool m_isRetryQueued = false;
};

class AdapterBranchStateCache final : public BranchStateCache {
public:
    AdapterBranchStateCache(const std::shared_ptr<CMAdapter>& adapter, BranchInformation& branches)
        : m_state(std::make_shared<State>(adapter, branches)) {}
    ~AdapterBranchStateCache() override { m_state->changed.disconnect_all_slots(); }

    CachedBranchState getBranchState() override { return m_state->use(); }
    boost::signals2::connection connectChanged(const ChangedSlot& slot) override {
        auto connection = m_state->changed.connect(slot);
        m_state->use();
        return connection;
    }
    void refresh() noexcept override { m_state->refresh(); }

private:
    const std::shared_ptr<State> m_state;
};

} // namespace

BranchStateCache::~BranchStateCache() = default;

std::unique_ptr<BranchStateCache>
createBranchStateCache(const std::shared_ptr<CMAdapter>& adapter) {
    if (adapter == nullptr)
        return nullptr;
    const auto subsystem = adapter->getSubsystem(typeid(BranchInformation));
    auto* const* branches = std::any_cast<BranchInformation*>(&subsystem);
    if (branches == nullptr || *branches == nullptr)
        return nullptr;
    return std::make_unique<AdapterBranchStateCache>(adapter, **branches);
}

} // namespace quendo
