// SPDX-License-Identifier: Apache-2.0
// The library's memory in the shape of the C runtime's functions, for C and C++.
//
// The same memory as that of `allocator_support`, which may free it and the other
// way round, with the same alignment and the same rules: any thread may call every
// function, and free what another allocated. Calls wait for internal locks only. Memory
// that did not come from here must not be passed, and goes undetected.
#ifndef OVEL_MALLOC_H
#define OVEL_MALLOC_H

#include "ovel_frame.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// At least `bytes` bytes, also for 0 an address of its own; null when memory is
// exhausted.
OVEL_EXPORT void* ovel_malloc(size_t bytes);

// `count` times `size` bytes, all zero; null when memory is exhausted or the
// product is more than a size_t can hold.
OVEL_EXPORT void* ovel_calloc(size_t count, size_t size);

// Moves the memory to a new place of at least `bytes` bytes, also when it would
// fit where it is, and frees the old one; so growing in many small steps is slow, for
// which C++ has `resize_array` of ovel_memory.h. A null `memory` is only allocated, 0
// bytes are still an address. Null when memory is exhausted: then the old one
// stays as it is.
OVEL_EXPORT void* ovel_realloc(void* memory, size_t bytes);

// Frees what one of the above returned; null does nothing.
OVEL_EXPORT void ovel_free(void* memory);

#ifdef __cplusplus
}
#endif

#endif
