// SPDX-License-Identifier: Apache-2.0
// The kernel services on 32-bit Windows, which the system and its C runtime provide.
#ifndef OVEL_PLATFORM_WINDOWS_KERNEL_H
#define OVEL_PLATFORM_WINDOWS_KERNEL_H

#include <x86intrin.h>  // __rdtsc

#include <cstddef>
#include <cstdlib>

namespace ovel {

inline namespace kernel {

// The library has no thread-local storage on this system: see library.cpp.
inline void* quick_pointer() {
    return nullptr;
}
inline void set_quick_pointer(void*) {}

// This system does not fork processes.
inline unsigned int process_generation() {
    return 0;
}
inline bool forking() {
    return false;
}
inline bool at_fork(fork_handlers const&) {
    return true;
}

// Nothing interrupts a thread here. The constructors keep compilers from calling the objects
// unused.
struct blocked_signals {
    blocked_signals() {}
};
struct deferred_cancellation {
    deferred_cancellation() {}
};

void set_thread_name(char const* name);
bool other_threads_have_ended();

// Like the system's, but for one slot only. It does not call the callback when the
// process ends or the DLL is unloaded: see library.cpp.
DWORD FlsAlloc(void(WINAPI* callback)(void*));

// Regions are ordinary blocks of the runtime heap.
inline void* malloc_region(std::size_t) {
    return ::malloc(region_length);
}
inline void free_region(void* region) {
    ::free(region);
}

}  // namespace kernel

}  // namespace ovel

#endif
