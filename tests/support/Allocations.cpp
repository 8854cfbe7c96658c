#include "tests/support/Allocations.h"

#include <cstdlib>
#include <new>

namespace quendo::test {

constinit thread_local std::size_t allocationCount = 0;
constinit thread_local std::size_t allocationsUntilFailure = never;

} // namespace quendo::test

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    ++quendo::test::allocationCount;
    if (auto& left = quendo::test::allocationsUntilFailure;
        left == quendo::test::always || (left != quendo::test::never && left-- == 0))
        return nullptr;
    return std::malloc(size != 0 ? size : 1);
}
void* operator new(std::size_t size) {
    if (void* memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}
// clang-format off
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
// clang-format on
