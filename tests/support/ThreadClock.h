#pragma once

#include <chrono>

namespace quendo::test {

/// How far the steady clock of this thread is ahead of that of the others. A program that uses it
/// has a clock_gettime() of its own.
extern constinit thread_local std::chrono::nanoseconds clockAhead;

} // namespace quendo::test
