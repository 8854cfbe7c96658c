#pragma once

#include <cstddef>

/// This thread's allocations. A test program that uses it lists Allocations.cpp among its own
/// sources, which replaces operator new there.
namespace quendo::test {

extern constinit thread_local std::size_t allocationCount;

constexpr std::size_t never = static_cast<std::size_t>(-1);

constexpr std::size_t always = never - 1;

/// This many allocations succeed and then one fails, which makes it `never` again; `always`: each
/// fails.
extern constinit thread_local std::size_t allocationsUntilFailure;

} // namespace quendo::test
