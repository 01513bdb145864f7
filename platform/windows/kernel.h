// The kernel services on 32-bit Windows: the system's own, and those of its C
// runtime.
#ifndef OVEL_PLATFORM_WINDOWS_KERNEL_H
#define OVEL_PLATFORM_WINDOWS_KERNEL_H

#include <x86intrin.h>  // __rdtsc

#endif
