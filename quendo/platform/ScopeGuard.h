#pragma once

#include "quendo/platform/UniqueFunction.h"

#include <type_traits>
#include <utility>

namespace quendo {

/// Runs one callable when it is destroyed, once, and swallows whatever the callable throws.
///
/// Returned by every operation that switches something off until it is released. Movable: the
/// guard moved from does nothing. Threads: as any value; the callable runs where the guard dies.
class scope_guard {
public:
    scope_guard() noexcept = default;

    /// If there is no memory to hold `action`, it runs at once and the failure propagates: what
    /// was switched off does not stay off.
    template <class Callable>
    requires(!std::is_same_v<std::decay_t<Callable>, scope_guard>) explicit scope_guard(
        Callable action) {
        try {
            m_action = UniqueFunction<void()>(std::move(action));
        } catch (...) {
            runQuietly(action);
            throw;
        }
    }

    scope_guard(scope_guard&& other) noexcept : m_action(std::exchange(other.m_action, {})) {}
    scope_guard& operator=(scope_guard&& other) noexcept {
        if (this != &other) {
            release();
            m_action = std::exchange(other.m_action, {});
        }
        return *this;
    }
    ~scope_guard() { release(); }

    /// Runs the callable now; later calls and the destructor do nothing.
    void release() noexcept {
        if (auto action = std::exchange(m_action, {}))
            runQuietly(action);
    }

    /// Forgets the callable without running it.
    void dismiss() noexcept { m_action = {}; }

private:
    template <class Callable>
    static void runQuietly(Callable& action) noexcept {
        try {
            action();
        } catch (...) {
        }
    }

    UniqueFunction<void()> m_action;
};

} // namespace quendo
