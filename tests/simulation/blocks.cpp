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

// The library's function of the same name. Looked up at the first call, which may come
// before any constructor of this program.
using allocation = void*(std::size_t);
constinit allocation* real_allocate = nullptr;
constinit allocation* real_allocate_nothrow = nullptr;

allocation* real(allocation*& known, char const* name) {
    if (known == nullptr)
        known = reinterpret_cast<allocation*>(dlsym(RTLD_NEXT, name));
    return known;
}

}  // namespace

void* allocator_support::allocate(std::size_t bytes) {
    if (simulation::count_block_request())
        throw std::bad_alloc();
    return real(real_allocate, "_ZN4ovel17allocator_support8allocateEm")(bytes);
}

void* allocator_support::allocate_nothrow(std::size_t bytes) {
    if (simulation::count_block_request())
        return nullptr;
    return real(real_allocate_nothrow, "_ZN4ovel17allocator_support16allocate_nothrowEm")(bytes);
}

}  // namespace ovel
