// SPDX-License-Identifier: Apache-2.0
// The few kernel services that inline members of the public headers call. The library's
// sources use more of them. platform/kernel.h describes all of them in full.
#ifndef OVEL_KERNEL_H
#define OVEL_KERNEL_H

#include "ovel_frame.h"

#if defined(_WIN32) && !defined(OVEL_SIMULATION)

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

// The calling convention of a thread's entry function.
#define OVEL_THREAD_ENTRY __stdcall

#else

#define OVEL_THREAD_ENTRY

namespace ovel {

// An inline namespace: the services have the system's names but stay out of the global
// namespace.
inline namespace kernel {

// A kernel object: a semaphore, a named mutex or a thread. Never null.
using HANDLE = void*;
using LONG = int;
using DWORD = unsigned int;
using BOOL = int;

inline constexpr DWORD INFINITE = 0xffffffffu;  // a timeout that never ends
inline constexpr DWORD WAIT_OBJECT_0 = 0;       // the wait acquired the object
inline constexpr DWORD WAIT_TIMEOUT = 258;      // the wait timed out
inline constexpr DWORD WAIT_FAILED = 0xffffffffu;
inline constexpr DWORD TLS_OUT_OF_INDEXES = 0xffffffffu;

OVEL_EXPORT DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds);
OVEL_EXPORT BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previous);

OVEL_EXPORT DWORD TlsAlloc();
OVEL_EXPORT BOOL TlsFree(DWORD index);
OVEL_EXPORT void* TlsGetValue(DWORD index);
OVEL_EXPORT BOOL TlsSetValue(DWORD index, void* value);

#if defined(OVEL_SIMULATION)

OVEL_EXPORT unsigned long GetCurrentThreadId();
OVEL_EXPORT void YieldProcessor();

#else

// What `GetCurrentThreadId` reads: the calling thread's identifier, or 0 until the first
// call finds it. Initial-exec, so that reading it is one load and no call.
OVEL_EXPORT extern constinit thread_local unsigned int current_thread_id
    [[gnu::tls_model("initial-exec")]];
OVEL_EXPORT unsigned int find_current_thread_id();

inline unsigned long GetCurrentThreadId() {
    unsigned int const known = current_thread_id;
    return known != 0 ? known : find_current_thread_id();
}

// Tells the processor that the caller polls a word.
inline void YieldProcessor() {
    __builtin_ia32_pause();
}

#endif

}  // namespace kernel

}  // namespace ovel

#endif

#endif
