#pragma once

#include "tests/support/GitSandbox.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <future>
#include <malloc.h>
#include <numeric>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace quendo::benchmark {

using Clock = std::chrono::steady_clock;

inline Clock::time_point after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

template <class Work>
double millisecondsOf(Work&& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// Of a program that is run in the sandbox's working copy. @throws std::runtime_error when it fails
inline double millisecondsOfProgram(const test::GitSandbox& sandbox,
                                    const std::vector<std::string>& command) {
    return millisecondsOf([&] {
        const auto result = sandbox.run(command, sandbox.work());
        if (result.exitCode != 0)
            throw std::runtime_error(command.front() + " failed: " + result.errors);
    });
}

/// Of this thread: others that want the processor do not count.
template <class Work>
double processorMillisecondsOf(Work&& work) {
    const auto now = [] {
        timespec time;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
    };
    const double start = now();
    work();
    return now() - start;
}

inline double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

/// The same numbers in every run.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed * 0x9E3779B97F4A7C15 + 1) {}
    std::size_t below(std::size_t limit) noexcept {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return m_state % limit;
    }

private:
    std::uint64_t m_state;
};

/// Durations, in buckets that are at most a thirtieth wide. Adding allocates nothing.
class Histogram {
public:
    void add(Clock::duration duration) noexcept {
        const auto value = static_cast<std::uint64_t>(duration.count());
        const auto shift = static_cast<unsigned>(std::max<int>(std::bit_width(value), 6) - 6);
        ++m_counts[std::min<std::size_t>(32 * shift + (value >> shift), m_counts.size() - 1)];
        m_longest = std::max(m_longest, value);
    }
    void add(const Histogram& other) noexcept {
        for (std::size_t i = 0; i < m_counts.size(); ++i)
            m_counts[i] += other.m_counts[i];
        m_longest = std::max(m_longest, other.m_longest);
    }
    /// In nanoseconds.
    double quantile(double part) const {
        auto left = static_cast<std::uint64_t>(part * static_cast<double>(calls()));
        std::size_t i = 0;
        for (; i + 1 < m_counts.size() && left >= m_counts[i]; ++i)
            left -= m_counts[i];
        const auto shift = i < 64 ? 0 : i / 32 - 1;
        return std::min(static_cast<double>((i - 32 * shift) << shift),
                        static_cast<double>(m_longest));
    }
    static void printHeading(const char* what) {
        std::printf("%-45s %10s %8s %8s %9s %10s\n", what, "calls", "median", "99 %", "99.9 %",
                    "longest");
    }
    /// @param clock what a measured call that does nothing takes; taken off
    void print(const char* what, double clock = 0) const {
        std::printf("  %-43s %10llu %5.0f ns %5.0f ns %6.2f us %7.2f ms\n", what,
                    static_cast<unsigned long long>(calls()), quantile(0.5) - clock,
                    quantile(0.99) - clock, (quantile(0.999) - clock) / 1e3,
                    static_cast<double>(m_longest) / 1e6);
    }

private:
    std::uint64_t calls() const { return std::reduce(m_counts.begin(), m_counts.end()); }

    std::array<std::uint64_t, 32 * 36> m_counts{};
    std::uint64_t m_longest = 0;
};

/// Bytes that are allocated now.
inline double heapUse() {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

/// A figure of /proc/self/status, in bytes.
inline double processUse(const char* key) {
    std::FILE* file = std::fopen("/proc/self/status", "r");
    char line[256];
    double result = 0;
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, key, std::strlen(key)) == 0)
            result = std::atof(line + std::strlen(key) + 1) * 1024;
    }
    std::fclose(file);
    return result;
}

/// Lets VmHWM begin anew.
inline void forgetPeak() {
    std::FILE* file = std::fopen("/proc/self/clear_refs", "w");
    std::fputs("5", file);
    std::fclose(file);
}

/// Calls `operation` with random numbers below `limit` on so many threads, and adds up what each
/// call took.
template <class Operation>
void timeCalls(Histogram& total, std::size_t threads, double seconds, std::size_t limit,
               const Operation& operation) {
    static std::atomic<std::uint64_t> seed = 1;
    const auto end = after(seconds);
    std::vector<std::future<Histogram>> results(threads);
    for (auto& result : results) {
        result = std::async(std::launch::async, [&] {
            Histogram own;
            Random random(++seed);
            for (auto now = Clock::now(); now < end;) {
                const auto index = random.below(limit);
                const auto start = Clock::now();
                operation(index);
                now = Clock::now();
                own.add(now - start);
            }
            return own;
        });
    }
    for (auto& result : results)
        total.add(result.get());
}

/// Runs a section of a benchmark in a process of its own, so that none measures what another left.
/// @return whether it came to its end
inline bool inOwnProcess(const std::function<void()>& section) {
    std::fflush(stdout);
    const auto child = fork();
    if (child == 0) {
        try {
            section();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            _exit(1);
        }
        std::fflush(stdout);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0)
        std::printf("  this section has failed\n");
    return status == 0;
}

} // namespace quendo::benchmark
