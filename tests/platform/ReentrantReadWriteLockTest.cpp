#include "quendo/platform/ReentrantReadWriteLock.h"
#include "tests/support/Testing.h"

#include <unistd.h>

namespace quendo {
namespace {

using test::within;

/// Another thread that takes one side of a lock, and gives it back at once. Made, it has the side
/// or sleeps in the kernel.
struct Taker {
    template <class Take>
    explicit Taker(Take take) {
        end = test::onThread([this, take] {
            thread = gettid();
            const auto scope = take();
            in = true;
        });
        const auto limit = test::byDeadline();
        for (int asleep = 0; asleep < 50 && !in && std::chrono::steady_clock::now() < limit;) {
            const auto text =
                thread == 0 ? ") "
                            : test::readFile("/proc/self/task/" + std::to_string(thread) + "/stat");
            asleep = text[text.rfind(')') + 2] == 'S' ? asleep + 1 : 0;
            std::this_thread::yield();
        }
    }
    std::atomic<int> thread{0};
    std::atomic<bool> in{false};
    std::future<void> end;
};

TEST(ReentrantReadWriteLock, ReentryPassesAWaitingWriterAndNewReadersDoNot) {
    ReentrantReadWriteLock lock;
    bool written = false; // under the lock
    auto held = std::optional(lock.read());
    Taker writer([&] {
        auto scope = lock.write();
        written = true;
        return scope;
    });
    Taker reader([&] {
        auto scope = lock.read();
        EXPECT_TRUE(written);
        return scope;
    });
    EXPECT_FALSE(writer.in);
    EXPECT_FALSE(reader.in) << "a new reader went before a waiting writer";
    {
        const auto again = lock.read(); // a deadlock here ends at CTest's limit
    }
    held.reset();
    within(std::move(writer.end));
    within(std::move(reader.end));
}

TEST(ReentrantReadWriteLock, HoldsNestInAnyOrderAndUpgradesAreRefused) {
    ReentrantReadWriteLock lock;
    {
        auto read = lock.read();
        auto moved = std::move(read);
        read.release();
        EXPECT_THROW(lock.write(), LockUpgradeError);
        moved.release();
        moved.release();
        const auto write = lock.write(), writeAgain = lock.write();
    }
    auto write = std::optional(lock.write());
    auto read = std::optional(lock.read());
    write.reset();
    EXPECT_THROW(lock.write(), LockUpgradeError) << "the read side alone is left";
    read.reset();
    within(test::onThread([&] { lock.write().release(); }));
}

TEST(ReentrantReadWriteLock, StormOfManyLocksLosesNoUpdate) {
    constexpr int lockCount = 9; // more than a thread's record holds without allocating
    constexpr int rounds = 4'000;
    ReentrantReadWriteLock locks[lockCount];
    long values[lockCount] = {};
    test::onThreads(4, [&](int) {
        for (int round = 0; round < rounds; ++round) {
            std::vector<ReentrantReadWriteLock::Scope> scopes;
            if (round % 50 == 0) {
                for (auto& lock : locks)
                    scopes.push_back(lock.write());
                for (auto& value : values)
                    ++value;
            } else {
                scopes.push_back(locks[round % lockCount].read());
                scopes.push_back(locks[round % lockCount].read());
                const long before = values[round % lockCount];
                scopes.front().release();
                EXPECT_EQ(values[round % lockCount], before);
            }
        }
    });
    for (const long value : values)
        EXPECT_EQ(value, 4 * (rounds / 50));
}

} // namespace
} // namespace quendo
