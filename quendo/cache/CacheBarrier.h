#pragma once

#include "quendo/cache/CacheTask.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>

#include <atomic>
#include <exception>
#include <future>
#include <memory>

namespace quendo {

class Executor;

/// The task behind which a job works: a one-shot promise with a signal for cancelling.
///
/// States: active and pending; cancelled and pending; settled, with success or an exception. It is
/// settled exactly once, by the job that owns it; waiters may be many and may come late.
///
/// Threads: any. Shared by the caller and the job.
class CacheBarrier : public CacheTask {
public:
    /// @param strand runs the job; a wait() there would wait for itself and throws instead. Null
    ///        when no strand is involved.
    /// @param sourceControl runs the job's query; the same holds there
    explicit CacheBarrier(std::shared_ptr<const Executor> strand = nullptr,
                          std::shared_ptr<const Executor> sourceControl = nullptr);
    ~CacheBarrier() override;

    void wait() override;
    void cancel() override;

    /// Slots run in cancel(), on its thread. Cancelling after the end calls them too.
    virtual boost::signals2::connection
    connectCancel(const boost::signals2::signal<void()>::slot_type& slot);

    bool isActive() const noexcept { return m_active.load(); }

    /// Ends with success; does nothing after fail().
    /// @throws std::future_error after an earlier complete()
    void complete();

    /// Ends with `failure`; does nothing after an earlier fail().
    /// @throws std::future_error after complete()
    void fail(std::exception_ptr failure);

private:
    const std::shared_ptr<const Executor> m_strand;
    const std::shared_ptr<const Executor> m_sourceControl;
    std::atomic<bool> m_active{true};
    std::atomic<bool> m_settled{false};
    std::promise<void> m_promise;
    const std::shared_future<void> m_future = m_promise.get_future().share();
    boost::signals2::signal<void()> m_cancelSignal;
};

} // namespace quendo
