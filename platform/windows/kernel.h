// SPDX-License-Identifier: Apache-2.0
// The kernel services on 32-bit Windows: those of the system and of its C runtime.
#ifndef OVEL_PLATFORM_WINDOWS_KERNEL_H
#define OVEL_PLATFORM_WINDOWS_KERNEL_H

#include <x86intrin.h>  // __rdtsc

#include <cstddef>
#include <cstdlib>

namespace ovel {

inline namespace kernel {

// The library has no thread-local storage there: see library.cpp.
inline void* quick_pointer() {
    return nullptr;
}
inline void set_quick_pointer(void*) {}

// Processes are not forked.
inline unsigned int process_generation() {
    return 0;
}
inline bool at_fork(fork_handlers const&) {
    return true;
}

void set_thread_name(char const* name);
bool other_threads_have_ended();

// The system's, but for one slot only, and its callback is not called when the process ends
// or the DLL is unloaded: see library.cpp.
DWORD FlsAlloc(void(WINAPI* callback)(void*));

// Regions are blocks of the runtime heap like any other.
inline void* malloc_region(std::size_t) {
    return ::malloc(region_length);
}
inline void free_region(void* region) {
    ::free(region);
}

}  // namespace kernel

}  // namespace ovel

#endif
