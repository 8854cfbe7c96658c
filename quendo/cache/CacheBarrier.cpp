#include "quendo/cache/CacheBarrier.h"

#include "quendo/platform/Executor.h"

#include <chrono>
#include <utility>

namespace quendo {

CacheBarrier::CacheBarrier(std::shared_ptr<const Executor> strand,
                           std::shared_ptr<const Executor> sourceControl)
    : m_strand(std::move(strand)), m_sourceControl(std::move(sourceControl)) {}

CacheBarrier::~CacheBarrier() = default;

void CacheBarrier::wait() {
    if (m_future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        if (m_strand != nullptr && m_strand->isRunningInThisThread())
            throw ExecutorDeadlockError(
                "A listener of a status cache waits for a refresh of the same cache, which runs "
                "after the listener: wait on another thread, or use connectTasksFinished");
        if (m_sourceControl != nullptr && m_sourceControl->isRunningInThisThread())
            throw ExecutorDeadlockError(
                "A task of the source-control thread waits for a refresh, which needs that thread: "
                "wait on another thread, or use connectTasksFinished");
    }
    m_future.get();
}

void CacheBarrier::cancel() {
    m_active.store(false);
    m_cancelSignal();
}

boost::signals2::connection
CacheBarrier::connectCancel(const boost::signals2::signal<void()>::slot_type& slot) {
    return m_cancelSignal.connect(slot);
}

void CacheBarrier::complete() {
    if (!m_settled.load())
        m_promise.set_value();
}

void CacheBarrier::fail(std::exception_ptr failure) {
    if (!m_settled.exchange(true))
        m_promise.set_exception(std::move(failure));
}

} // namespace quendo
