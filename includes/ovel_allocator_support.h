// SPDX-License-Identifier: Apache-2.0
// The library's memory: the one door to it for the library and for programs.
#ifndef OVEL_ALLOCATOR_SUPPORT_H
#define OVEL_ALLOCATOR_SUPPORT_H

#include "ovel_atomic.h"
#include "ovel_frame.h"

#include <cstddef>

namespace ovel {

namespace detail {

struct plain_functions;

// The bytes to ask `allocator_support` for, so that the memory of `bytes` bytes is aligned
// to `alignment`, a power of two up to that of large blocks: those that make the block with
// its header a multiple of it.
constexpr std::size_t bytes_aligned(std::size_t bytes, std::size_t alignment) {
    constexpr std::size_t header = 2 * sizeof(void*);
    constexpr std::size_t largest_block = 4096;
    // All are aligned to 8, and large ones to a cacheline.
    if (alignment <= 8 || bytes > largest_block - header)
        return bytes;
    return ((bytes + header + alignment - 1) & ~(alignment - 1)) - header;
}

}  // namespace detail

// Memory in the shape of the C runtime's, but scalable: requests of up to 4096
// bytes less a header of two pointers are served by the calling thread's
// allocator, without a lock; larger ones go to the runtime heap.
//
// Any thread may call every member at any time, and free what another allocated:
// `allocator_group` lends an allocator to each thread that has none. Calls
// wait only for internal locks that are held briefly, and for the runtime heap. The
// first call in the process builds the allocators: memory exhausted then fails the
// check "("unexpected exception", 0)" also where null is promised.
class OVEL_EXPORT allocator_support {
public:
    allocator_support() = delete;

    // At least `bytes` bytes, also for 0 an address of its own. They are aligned
    // to 8 bytes at least, to 16 from a request of more than 16 bytes on (of more than 8
    // in 64-bit builds), and to 128 when large. Throws std::bad_alloc when memory is exhausted, and
    // for byte counts that no memory can have.
    static void* allocate(std::size_t bytes);

    // As `allocate`, but null in place of std::bad_alloc.
    static void* allocate_nothrow(std::size_t bytes);

    // As `allocate_nothrow`, and all bytes are 0. Of a large block that the runtime heap has
    // fresh from the system no page is touched for that.
    static void* allocate_zeroed_nothrow(std::size_t bytes);

    // Frees what `allocate` returned; null does nothing. Anything else that did
    // not come from here must not be passed, and goes undetected.
    static void deallocate(void* memory);

    // Memory of at least `bytes` bytes with what `memory`, which may be null, had, as far
    // as that fits. Unlike `ovel_realloc` it stays where it is if it fits there and is not
    // too large, and a large block if the runtime heap can let it grow or shrink in place,
    // or move without being copied. Throws std::bad_alloc, and then nothing has changed.
    static void* resize(void* memory, std::size_t bytes);

    // The bytes that may be used at `memory`, at least those asked for; 0 for null.
    static std::size_t size(void const* memory);

    // Bytes in use in the process: small blocks with their headers and rounding,
    // and what the runtime heap has set aside for large ones. A block freed by
    // another thread counts until it is back with its owner. A snapshot: other
    // threads may change it meanwhile.
    static std::size_t allocated_size();

    // Bytes held in the process, in use or ready for it. A snapshot likewise.
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

    // Bytes that the runtime heap has set aside for all large blocks. Relaxed: a
    // sum of its own, which orders nothing.
    static detail::atomic<std::size_t> _large_size;
};

}  // namespace ovel

#endif
