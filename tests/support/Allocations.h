#pragma once

#include <cstddef>

/// This thread's allocations. A test program that uses it lists Allocations.cpp among its own
/// sources, which replaces operator new there.
namespace quendo::test {

extern constinit thread_local std::size_t allocationCount;

} // namespace quendo::test
