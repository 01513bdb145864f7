// SPDX-License-Identifier: Apache-2.0
// The calls that the compiler's thread-sanitizer instrumentation makes before plain
// memory accesses. The library is compiled with the instrumentation but linked without
// the sanitizer, so the calls come here.

#include "scheduler.h"

#include <cstddef>

namespace {

void access_plainly(void const* memory, std::size_t size, bool writes) {
    if (ovel::simulation::plain_points)
        ovel::simulation::access_plainly(memory, size, writes);
}

}  // namespace

#define OVEL_SIMULATION_ACCESS(SIZE)                       \
    void __tsan_read##SIZE(void* memory) {                 \
        access_plainly(memory, SIZE, false);               \
    }                                                      \
    void __tsan_write##SIZE(void* memory) {                \
        access_plainly(memory, SIZE, true);                \
    }                                                      \
    void __tsan_unaligned_read##SIZE(void* memory) {       \
        access_plainly(memory, SIZE, false);               \
    }                                                      \
    void __tsan_unaligned_write##SIZE(void* memory) {      \
        access_plainly(memory, SIZE, true);                \
    }                                                      \
    void __tsan_read_write##SIZE(void* memory) {           \
        access_plainly(memory, SIZE, true);                \
    }                                                      \
    void __tsan_unaligned_read_write##SIZE(void* memory) { \
        access_plainly(memory, SIZE, true);                \
    }

extern "C" {

OVEL_SIMULATION_ACCESS(1)
OVEL_SIMULATION_ACCESS(2)
OVEL_SIMULATION_ACCESS(4)
OVEL_SIMULATION_ACCESS(8)
OVEL_SIMULATION_ACCESS(16)

void __tsan_read_range(void* memory, std::size_t size) {
    access_plainly(memory, size, false);
}
void __tsan_write_range(void* memory, std::size_t size) {
    access_plainly(memory, size, true);
}

// An object's virtual table pointer, which constructors and destructors set.
void __tsan_vptr_update(void** pointer, void*) {
    access_plainly(pointer, sizeof *pointer, true);
}
void __tsan_vptr_read(void** pointer) {
    access_plainly(pointer, sizeof *pointer, false);
}

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}

// The guard of a local static variable.
unsigned char __tsan_atomic8_load(unsigned char const volatile* byte, int) {
    return *byte;
}

// The instrumentation replaces these calls. Copies and fills are not checked.
void* __tsan_memcpy(void* target, void const* source, std::size_t size) {
    return __builtin_memcpy(target, source, size);
}
void* __tsan_memmove(void* target, void const* source, std::size_t size) {
    return __builtin_memmove(target, source, size);
}
void* __tsan_memset(void* target, int value, std::size_t size) {
    return __builtin_memset(target, value, size);
}

}  // extern "C"
