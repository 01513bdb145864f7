// SPDX-License-Identifier: Apache-2.0
// The program's own `allocate` and `allocate_nothrow`. The dynamic linker prefers them to the
// library's for every call, the library's included, so any single allocation can fail.

#include "ovel_allocator_support.h"
#include "simulation/scheduler.h"

#include <dlfcn.h>

#include <cstddef>
#include <new>

namespace ovel {

namespace {

// The library's function of the same name.
auto real(char const* name) {
    return reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void* allocator_support::allocate(std::size_t bytes) {
    if (simulation::count_block_request())
        throw std::bad_alloc();
    static auto const original = real("_ZN4ovel17allocator_support8allocateEm");
    return original(bytes);
}

void* allocator_support::allocate_nothrow(std::size_t bytes) {
    if (simulation::count_block_request())
        return nullptr;
    static auto const original = real("_ZN4ovel17allocator_support16allocate_nothrowEm");
    return original(bytes);
}

}  // namespace ovel
