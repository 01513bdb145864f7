// SPDX-License-Identifier: Apache-2.0
// The library's memory with an interface like the C runtime's, for C and C++.
//
// The same memory as that of `allocator_support`, with the same alignment; either may free
// what the other allocated. Any thread may call every function, and free what another
// allocated. Calls wait only for internal locks and for the runtime heap. Not detected:
// memory that did not come from here.
#ifndef OVEL_MALLOC_H
#define OVEL_MALLOC_H

#include "ovel_frame.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// At least `bytes` bytes, for 0 a unique address; null when memory is exhausted.
OVEL_EXPORT void* ovel_malloc(size_t bytes);

// `count` times `size` bytes, all zero; null when memory is exhausted or the product
// overflows.
OVEL_EXPORT void* ovel_calloc(size_t count, size_t size);

// Moves the contents to a new block of at least `bytes` bytes, even if they would fit in
// place, and frees the old block. So growing in many small steps is slow; in C++ use
// `resize_array` of ovel_memory.h for that. With a null `memory` it only allocates; 0 bytes
// still give a block. Returns null when memory is exhausted, and leaves the old block as it
// is.
OVEL_EXPORT void* ovel_realloc(void* memory, size_t bytes);

// Frees what one of the above returned; null does nothing.
OVEL_EXPORT void ovel_free(void* memory);

#ifdef __cplusplus
}
#endif

#endif
