// SPDX-License-Identifier: Apache-2.0
// Operators new and delete of the program that includes this once. They count their calls, and
// can be out of memory.
#ifndef OVEL_OWN_OPERATORS_H
#define OVEL_OWN_OPERATORS_H

#include <atomic>
#include <cstdlib>
#include <new>

namespace own_operators {

std::atomic<int> calls = 0;
std::atomic<bool> out_of_memory = false;

}  // namespace own_operators

void* operator new(std::size_t bytes, std::nothrow_t const&) noexcept {
    ++own_operators::calls;
    return own_operators::out_of_memory ? nullptr : std::malloc(bytes);
}

void* operator new(std::size_t bytes) {
    void* const memory = operator new(bytes, std::nothrow);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

// Not inlined, or gcc would take `free` for a mistake.
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    ++own_operators::calls;
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

#endif
