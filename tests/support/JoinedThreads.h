#pragma once

#include "quendo/platform/standard/ThreadStarter.h"
#include "tests/support/Deadline.h"

#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace quendo::test {

/// Threads that can be waited for.
class JoinedThreads {
public:
    platform::ThreadStarter starter() const {
        return [list = m_list](UniqueFunction<void()> body) {
            const std::lock_guard lock(list->mutex);
            list->threads.emplace_back(std::move(body));
        };
    }
    /// Waits until all have ended, those that are started meanwhile too.
    void join() {
        for (std::vector<std::thread> ending;; ending.clear()) {
            {
                const std::lock_guard lock(m_list->mutex);
                ending.swap(m_list->threads);
            }
            if (ending.empty())
                return;
            for (auto& thread : ending)
                within(onThread([&] { thread.join(); }));
        }
    }

private:
    struct List {
        std::mutex mutex;
        std::vector<std::thread> threads;
    };
    const std::shared_ptr<List> m_list = std::make_shared<List>();
};

} // namespace quendo::test
