#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>
#include <vector>

namespace quendo::test {

constexpr std::chrono::seconds deadline{60};

inline std::chrono::steady_clock::time_point byDeadline() {
    return std::chrono::steady_clock::now() + deadline;
}

/// The future's result; ends the process when it does not come, because what hangs cannot be
/// cleaned up.
template <class Result>
Result within(std::future<Result> future) {
    if (future.wait_for(deadline) != std::future_status::ready) {
        std::fputs("deadline passed: something hangs\n", stderr);
        std::abort();
    }
    return future.get();
}

/// Runs `work` on a new thread.
template <class Work>
auto onThread(Work work) {
    std::packaged_task<std::invoke_result_t<Work&>()> task(std::move(work));
    auto future = task.get_future();
    std::thread(std::move(task)).detach();
    return future;
}

/// Runs `work` with 0, 1 and so on, each on a new thread, and waits for all of them.
template <class Work>
void onThreads(int count, Work work) {
    std::vector<std::future<void>> threads;
    for (int i = 0; i < count; ++i)
        threads.push_back(onThread([&work, i] { work(i); }));
    for (auto& thread : threads)
        within(std::move(thread));
}

} // namespace quendo::test
