// SPDX-License-Identifier: Apache-2.0
// Poisons memory that no program may touch, in builds for AddressSanitizer: everything in a
// chunk except the memory of blocks in use. In all other builds it does nothing.
//
// OVEL_POISON is defined for all sources. Those that read a chunk's own fields are compiled
// without the sanitizer's checks.
#ifndef OVEL_POISON_H
#define OVEL_POISON_H

#include <cstddef>

#if defined(OVEL_POISON)

extern "C" void __asan_poison_memory_region(void const volatile* begin, std::size_t size);
extern "C" void __asan_unpoison_memory_region(void const volatile* begin, std::size_t size);

namespace ovel::detail {

inline void poison(void* begin, std::size_t size) {
    __asan_poison_memory_region(begin, size);
}
inline void unpoison(void* begin, std::size_t size) {
    __asan_unpoison_memory_region(begin, size);
}

}  // namespace ovel::detail

#else

namespace ovel::detail {

inline void poison(void*, std::size_t) {}
inline void unpoison(void*, std::size_t) {}

}  // namespace ovel::detail

#endif

#endif
