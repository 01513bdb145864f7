// SPDX-License-Identifier: Apache-2.0
// The library's memory: all allocations of the library and of programs go through here.
#ifndef OVEL_ALLOCATOR_SUPPORT_H
#define OVEL_ALLOCATOR_SUPPORT_H

#include "ovel_atomic.h"
#include "ovel_frame.h"

#include <cstddef>

namespace ovel {

namespace detail {

struct plain_functions;

// The bytes to request of `allocator_support` for `bytes` bytes aligned to `alignment`, a
// power of two up to the alignment of large blocks: enough to make the block, header
// included, a multiple of it.
constexpr std::size_t bytes_aligned(std::size_t bytes, std::size_t alignment) {
    constexpr std::size_t header = 2 * sizeof(void*);
    constexpr std::size_t largest_block = 4096;
    // All blocks are aligned to 8, and large ones to a cacheline.
    if (alignment <= 8 || bytes > largest_block - header)
        return bytes;
    return ((bytes + header + alignment - 1) & ~(alignment - 1)) - header;
}

}  // namespace detail

// Scalable memory with an interface like the C runtime's. The calling thread's allocator
// serves requests of up to 4096 bytes less a header of two pointers, without a lock; larger
// ones go to the runtime heap.
//
// Any thread may call every member at any time, and free what another allocated:
// `allocator_group` lends an allocator to each thread that has none. Calls wait only for
// internal locks that are held briefly, and for the runtime heap. The first call in the
// process builds the allocators; if memory is exhausted then, the check
// "("unexpected exception", 0)" fails, even in members that otherwise return null.
class OVEL_EXPORT allocator_support {
public:
    allocator_support() = delete;

    // At least `bytes` bytes, for 0 a unique address. They are aligned to at least 8 bytes,
    // to 16 for requests of more than 16 bytes (of more than 8 in 64-bit builds), and to 128
    // when large. Throws std::bad_alloc when memory is exhausted, and for impossible sizes.
    static void* allocate(std::size_t bytes);

    // As `allocate`, but returns null instead of throwing std::bad_alloc.
    static void* allocate_nothrow(std::size_t bytes);

    // As `allocate_nothrow`, and all bytes are 0. Does not touch the pages of a large block
    // that the runtime heap has fresh from the system.
    static void* allocate_zeroed_nothrow(std::size_t bytes);

    // Frees what `allocate` returned; null does nothing. Not detected: memory that did not
    // come from here.
    static void deallocate(void* memory);

    // Memory of at least `bytes` bytes with the contents of `memory`, which may be null, as
    // far as they fit. Unlike `ovel_realloc` it leaves a block in place if its size class
    // stays the same. The runtime heap resizes a large block in place, or moves it without
    // a copy, if it can. Throws std::bad_alloc, having changed nothing.
    static void* resize(void* memory, std::size_t bytes);

    // The usable bytes at `memory`, at least the bytes requested; 0 for null.
    static std::size_t size(void const* memory);

    // Bytes in use in the process: small blocks with headers and rounding, and what the
    // runtime heap has reserved for large ones. A block freed by another thread counts until
    // its owner has it back. A snapshot: other threads may change it meanwhile.
    static std::size_t allocated_size();

    // Bytes held in the process, in use or free. Also a snapshot.
    static std::size_t allocated_capacity();

private:
    friend struct detail::plain_functions;

    // The slow paths of the public members. Only `_allocate_nothrow` decides where memory
    // comes from; `_allocate` throws where that returns null.
    static void* _allocate(std::size_t bytes);
    static void* _allocate_nothrow(std::size_t bytes) noexcept;
    static void* _allocate_large(std::size_t bytes, bool zeroed) noexcept;
    static void* _place_large(char* region);
    static void* _resize_large(void* memory, std::size_t bytes);
    static void _deallocate(void* memory);
    static void _deallocate_large(void* region);

    // Bytes that the runtime heap has reserved for all large blocks. Relaxed: an
    // independent sum, which orders nothing.
    static detail::atomic<std::size_t> _large_size;
};

}  // namespace ovel

#endif
