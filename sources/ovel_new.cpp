// SPDX-License-Identifier: Apache-2.0
// The library's own allocation operators: every object that its sources create with `new`
// comes from `allocator_support`. All replaceable forms are here, so the library calls none of
// the program or the runtime. The compiler declares them visible, whatever its options say.
// The linker hides them, so they do not replace the program's.

#include "ovel_allocator.h"
#include "ovel_allocator_support.h"
#include "ovel_assure.h"

#include <cstddef>
#include <new>

namespace {

using ovel::allocator_support;
using ovel::cacheline;
using ovel::detail::granule;

// Whether each request whose size is a multiple of `alignment` gets a class with at least that
// alignment. Requests beyond the classes are aligned to a cacheline.
consteval bool classes_align() {
    for (std::size_t alignment = granule; alignment <= sizeof(cacheline); alignment *= 2) {
        for (std::size_t size = alignment; size <= ovel::detail::largest_block; size += alignment) {
            std::size_t const fitting = ovel::detail::block_sizes[ovel::detail::class_of(size)];
            if (ovel::detail::alignment_of(fitting) < alignment)
                return false;
        }
    }
    return true;
}
static_assert(classes_align());

std::size_t padded(std::size_t bytes, std::align_val_t wanted) {
    auto const alignment = static_cast<std::size_t>(wanted);
    assure(alignment <= sizeof(cacheline));
    return ovel::detail::bytes_aligned(bytes, alignment);
}

}  // namespace

void* operator new(std::size_t bytes) {
    return allocator_support::allocate(bytes);
}

void* operator new[](std::size_t bytes) {
    return allocator_support::allocate(bytes);
}

void* operator new(std::size_t bytes, std::nothrow_t const&) noexcept {
    return allocator_support::allocate_nothrow(bytes);
}

void* operator new[](std::size_t bytes, std::nothrow_t const&) noexcept {
    return allocator_support::allocate_nothrow(bytes);
}

void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return allocator_support::allocate(padded(bytes, alignment));
}

void* operator new[](std::size_t bytes, std::align_val_t alignment) {
    return allocator_support::allocate(padded(bytes, alignment));
}

void* operator new(std::size_t bytes, std::align_val_t alignment, std::nothrow_t const&) noexcept {
    return allocator_support::allocate_nothrow(padded(bytes, alignment));
}

void* operator new[](std::size_t bytes, std::align_val_t alignment,
                     std::nothrow_t const&) noexcept {
    return allocator_support::allocate_nothrow(padded(bytes, alignment));
}

void operator delete(void* memory) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete[](void* memory) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete(void* memory, std::nothrow_t const&) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete[](void* memory, std::nothrow_t const&) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete(void* memory, std::align_val_t) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete[](void* memory, std::align_val_t) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete(void* memory, std::align_val_t, std::nothrow_t const&) noexcept {
    allocator_support::deallocate(memory);
}

void operator delete[](void* memory, std::align_val_t, std::nothrow_t const&) noexcept {
    allocator_support::deallocate(memory);
}
