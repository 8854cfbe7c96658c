#include "quendo/platform/ReentrantReadWriteLock.h"

#include <array>
#include <cstdint>
#include <pthread.h>
#include <system_error>
#include <utility>

namespace quendo {
namespace {

// What this thread holds of one lock. Taking a lock again only counts here and never touches the
// lock itself, so it gets past waiting writers.
struct Hold {
    const void* lock = nullptr;
    std::uint32_t reads = 0;
    std::uint32_t writes = 0;
    Hold* next = nullptr; // of those beyond the array
};

// Trivially destructible, so that locks work in destructors of statics and of other thread-local
// objects, whatever their order.
struct Holds {
    std::array<Hold, 6> few;
    Hold* more = nullptr;

    Hold* find(const void* lock) noexcept {
        for (auto& hold : few) {
            if (hold.lock == lock)
                return &hold;
        }
        for (auto* hold = more; hold != nullptr; hold = hold->next) {
            if (hold->lock == lock)
                return hold;
        }
        return nullptr;
    }

    Hold& add(const void* lock) {
        if (auto* unused = findUnused()) {
            unused->lock = lock;
            return *unused;
        }
        more = new Hold{lock, 0, 0, more};
        return *more;
    }

    void remove(Hold& hold) noexcept {
        for (auto** link = &more; *link != nullptr; link = &(*link)->next) {
            if (*link == &hold) {
                *link = hold.next;
                delete &hold;
                return;
            }
        }
        hold = {};
    }

private:
    Hold* findUnused() noexcept {
        for (auto& hold : few) {
            if (hold.lock == nullptr)
                return &hold;
        }
        return nullptr;
    }
};

constinit thread_local Holds holds;

void pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

void check(int error, const char* what) {
    if (error != 0)
        throw std::system_error(error, std::generic_category(), what);
}

} // namespace

struct ReentrantReadWriteLock::Impl {
    pthread_rwlock_t lock;

    Impl() {
        pthread_rwlockattr_t attributes;
        check(pthread_rwlockattr_init(&attributes), "pthread_rwlockattr_init");
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        const int error = pthread_rwlock_init(&lock, &attributes);
        pthread_rwlockattr_destroy(&attributes);
        check(error, "pthread_rwlock_init");
    }
    ~Impl() { pthread_rwlock_destroy(&lock); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // Most holds are shorter than going to sleep and being woken. A writer that sleeps also keeps
    // readers out until it has been woken, so it tries for a while to find a moment without
    // readers.
    bool takenWithoutSleep(int (*tryIt)(pthread_rwlock_t*)) {
        for (int i = 0; i < 200; ++i) {
            if (tryIt(&lock) == 0)
                return true;
            pause();
        }
        return false;
    }

    // The hold is noted first: noting can fail for lack of memory, and then nothing is locked.
    void take(int (*tryIt)(pthread_rwlock_t*), int (*lockIt)(pthread_rwlock_t*),
              std::uint32_t Hold::*count, const char* what) {
        auto& hold = holds.add(this);
        if (takenWithoutSleep(tryIt))
            ;
        else if (const int error = lockIt(&lock); error != 0) {
            holds.remove(hold);
            check(error, what);
        }
        hold.*count = 1;
    }
};

ReentrantReadWriteLock::ReentrantReadWriteLock() : m_impl(std::make_unique<Impl>()) {}
ReentrantReadWriteLock::~ReentrantReadWriteLock() = default;

ReentrantReadWriteLock::Scope ReentrantReadWriteLock::read() const {
    if (auto* hold = holds.find(m_impl.get()))
        ++hold->reads;
    else
        m_impl->take(pthread_rwlock_tryrdlock, pthread_rwlock_rdlock, &Hold::reads,
                     "pthread_rwlock_rdlock");
    return {m_impl.get(), false};
}

ReentrantReadWriteLock::Scope ReentrantReadWriteLock::write() const {
    if (auto* hold = holds.find(m_impl.get())) {
        if (hold->writes == 0)
            throw LockUpgradeError("A thread that holds the read side of a lock asks for its write "
                                   "side: release the read side first, then test again");
        ++hold->writes;
    } else {
        m_impl->take(pthread_rwlock_trywrlock, pthread_rwlock_wrlock, &Hold::writes,
                     "pthread_rwlock_wrlock");
    }
    return {m_impl.get(), true};
}

ReentrantReadWriteLock::Scope& ReentrantReadWriteLock::Scope::operator=(Scope&& other) noexcept {
    if (this != &other) {
        release();
        m_impl = std::exchange(other.m_impl, nullptr);
        m_write = other.m_write;
    }
    return *this;
}

void ReentrantReadWriteLock::Scope::release() noexcept {
    auto* impl = std::exchange(m_impl, nullptr);
    if (impl == nullptr)
        return;
    auto* hold = holds.find(impl);
    if (hold == nullptr)
        return; // moved to another thread, against the contract
    --(m_write ? hold->writes : hold->reads);
    // A read side that outlives the write side around it keeps other threads out until it goes:
    // there is no way down that lets nobody in between.
    if (hold->reads == 0 && hold->writes == 0) {
        holds.remove(*hold);
        pthread_rwlock_unlock(&impl->lock);
    }
}

} // namespace quendo
