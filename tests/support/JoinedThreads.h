#pragma once

#include "quendo/platform/standard/ThreadStarter.h"
#include "tests/support/Testing.h"

#include <sys/wait.h>

namespace quendo::test {

/// What the process holds: descriptors, watches of the kernel, child processes.
inline std::vector<long> held() {
    long watches = 0, descriptors = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo")) {
        ++descriptors;
        std::ifstream stream(entry.path());
        for (std::string line; std::getline(stream, line);)
            watches += line.starts_with("inotify ");
    }
    return {descriptors, watches, ::waitpid(-1, nullptr, WNOHANG)};
}

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
