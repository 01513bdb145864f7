// SPDX-License-Identifier: Apache-2.0
// The kernel services: everything that the library asks of an operating system or of the
// processor. The sources call nothing else, so this page lists all that a new platform
// has to provide.
//
// Names, results and failure values are those of 32-bit Windows, where the system itself
// provides the services. On every other platform they are functions in the inline
// namespace `ovel::kernel`, with as much of each service as the library uses. Unless a
// comment says otherwise, any thread may call a service; it takes no lock of the library,
// throws nothing and needs no constructor to have run. So the services work from the
// first instruction of the process's load. They allocate from the runtime heap; only
// regions may come from the system.
//
// Waiting. A wait ends only because it acquired the object or because it timed out; the
// layer hides interrupted and spurious wake-ups. Timeouts are milliseconds from the call,
// on the monotonic clock. A wait may end late but never early. A timeout of 0 never
// sleeps. A wait takes an available unit even if its time has already passed.
//
// Wake-ups. A posted unit wakes any one sleeper. A post without sleepers makes no system
// call. What a thread wrote before it posted a unit, released a mutex or ended is visible
// to the thread whose wait takes that unit, that mutex or that end.
#ifndef OVEL_PLATFORM_KERNEL_H
#define OVEL_PLATFORM_KERNEL_H

#include "ovel_kernel.h"

#include <cstddef>
#include <cstdint>

namespace ovel {

inline namespace kernel {

inline constexpr std::size_t region_length = 65536;

// The argument of `at_fork`.
struct fork_handlers {
    void (*before)();
    void (*in_parent)();
    void (*in_child)();
};

}  // namespace kernel

}  // namespace ovel

#if defined(_WIN32) && !defined(OVEL_SIMULATION)

#include <malloc.h>
#include <process.h>
#include <stdlib.h>

#include "windows/kernel.h"

#else

#if !defined(OVEL_SIMULATION)
#include <x86intrin.h>
#include <cstdlib>

#include "linux/generation.h"
#include "linux/interruption.h"
#include "linux/quick_pointer.h"
#endif

namespace ovel {

inline namespace kernel {

// Semaphores, mutexes and threads.

// A counting semaphore with `count` units, at least 0, which holds at most `maximum`.
// `security` and `name` are null. Returns null if memory runs out or the numbers are out
// of range.
HANDLE CreateSemaphoreA(void* security, LONG count, LONG maximum, char const* name);

// Posts `count` units, at least 1. Returns 0 and posts nothing if that would exceed the
// maximum or if `semaphore` is not a semaphore. `previous` is null. Once the units are
// visible, it neither reads nor writes the object: the thread that takes a unit may close
// it.
//     BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previous);

// Takes a unit of a semaphore, the ownership of a mutex, or the end of a thread. Blocks
// until there is one or `milliseconds` have passed (`INFINITE`: never). Returns
// `WAIT_OBJECT_0` if it took it, `WAIT_TIMEOUT` if the time passed, and `WAIT_FAILED` if
// `object` is null. The end of a thread can be taken any number of times. From the first
// time on, the thread has ended and its resources are freed.
//     DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds);

// Closes a handle. Closing the last handle destroys the object, a thread's object only
// after the thread has ended. No thread may be waiting on the object. Returns 0 if
// `object` is null.
BOOL CloseHandle(HANDLE object);

// Returns this process's mutex called `name`, or creates it without an owner. `security`
// is null, `owned` is 0. The owner may take the mutex again, and must release it as
// often. Returns null if memory runs out.
HANDLE CreateMutexA(void* security, BOOL owned, char const* name);

// Releases a mutex. Returns 0 if the caller does not own it.
BOOL ReleaseMutex(HANDLE mutex);

// Starts a thread that calls `entry(argument)` at once, on any processor of the process,
// with at least `stack` bytes for its frames (0: the system's default). `security` is
// null and `flags` 0. `*identifier` receives what `GetCurrentThreadId` returns in the
// thread. Returns the handle as an integer, or 0 if the system refuses.
std::uintptr_t _beginthreadex(void* security, unsigned int stack, unsigned int (*entry)(void*),
                              void* argument, unsigned int flags, unsigned int* identifier);

// Forks.

// How often the process and its ancestors were forked: one more in a child than in its
// parent. A thread exists only in the process that started it. Waiting for a thread that
// a fork left behind returns `WAIT_FAILED`.
//     unsigned int process_generation();

// Makes a thread that forks call `before`, then fork, and then call `in_parent` or
// `in_child`. In the child it is the only thread. Meanwhile no other thread is inside a
// service that changes state shared between threads.
//
// Called once, when the library is loaded. Has no effect on systems without fork. Returns
// false if memory runs out.
//     bool at_fork(fork_handlers const& handlers);

// Whether the calling thread is forking: between the end of `before` and the start of the other
// handler. Other fork handlers of the program may run then. A read without a call.
//     bool forking();

// Whether the process is ending and the system has already ended all other threads,
// wherever they were. The caller must then not wait for any lock.
//     bool other_threads_have_ended();

// The calling thread.

// For the lifetime of a `blocked_signals` the thread handles no signals but those of its own
// faults. Threads that it starts meanwhile handle none for good.
//     class blocked_signals;

// For the lifetime of a `deferred_cancellation` no other thread cancels this one. It is then
// cancelled later, where it waits next.
//     class deferred_cancellation;

// Differs from that of every other living thread and is never 0. A read without a call.
//     unsigned long GetCurrentThreadId();
unsigned long GetCurrentProcessId();

// Handles of the calling thread and process, for the mask services below.
HANDLE GetCurrentThread();
HANDLE GetCurrentProcess();

// Names the calling thread for debuggers and monitors, with at most 15 ASCII characters.
// Does nothing if the system keeps no names.
//     void set_thread_name(char const* name);

// Sleeps for at least `milliseconds`. With 0 it only yields to another ready thread.
void Sleep(DWORD milliseconds);

// Thread-local slots. An index has 32 bits; `TlsAlloc` returns `TLS_OUT_OF_INDEXES` if no
// slot is left. That index reads null, and so does a slot in every thread that has not set it
// since it was allocated, even if the thread had set it for an earlier holder. Reading takes
// a few loads and never fails. Setting may allocate, and returns 0 if memory runs out.
//     DWORD TlsAlloc();
//     BOOL TlsFree(DWORD index);       0 if the index is not in use
//     void* TlsGetValue(DWORD index);
//     BOOL TlsSetValue(DWORD index, void* value);

// Fiber-local slots report the end of a thread: the system calls `callback(value)` on
// that thread if its value is not null. The callback sets the slot to null itself,
// because not every system does. On Linux the call comes after the destructors of the
// thread's `thread_local` objects and among those of its pthread keys; on Windows it may
// come before all of them. A value that is set after the call may be dropped without
// another call. There is no call on the thread that ends the process by `exit`, or while
// the library is unloaded. `FlsAlloc` returns `FLS_OUT_OF_INDEXES` if no slot is left;
// the value of that index is null and cannot be set. Setting a slot that is not null to
// null always succeeds. Any other setting may fail if memory runs out, and then returns
// 0.

inline constexpr DWORD FLS_OUT_OF_INDEXES = 0xffffffffu;

DWORD FlsAlloc(void (*callback)(void*));
void* FlsGetValue(DWORD index);
BOOL FlsSetValue(DWORD index, void* value);

// One more pointer per thread, which is read without a call. It is only a hint: null in a
// thread that has not set it, and always null on a platform that has nothing faster than
// a slot.
//     void* quick_pointer();
//     void set_quick_pointer(void* value);

// Processors. Bit i of a mask stands for processor i; a mask has 32 bits at most.

using DWORD_PTR = unsigned long;

struct SYSTEM_INFO {
    DWORD dwNumberOfProcessors;
};

// The processors of the machine, 1 to 32.
void GetSystemInfo(SYSTEM_INFO* information);

// The processors that the process may use, a subset of those that the system has. Returns
// 0 if `process` is not the current one.
BOOL GetProcessAffinityMask(HANDLE process, DWORD_PTR* process_mask, DWORD_PTR* system_mask);

// Restricts every present and future thread of the process to `mask`. Returns 0 and
// changes nothing if the mask is 0 or not part of the system's.
BOOL SetProcessAffinityMask(HANDLE process, DWORD_PTR mask);

// Restricts the calling thread to `mask` and returns its previous mask. Returns 0 and
// changes nothing if the mask is 0 or not part of the process's.
DWORD_PTR SetThreadAffinityMask(HANDLE thread, DWORD_PTR mask);

// The registry. The library reads one value, "~MHz" under the key
// "HARDWARE\DESCRIPTION\System\CentralProcessor\0" of the local machine: a 32-bit
// integer, the rate of the time-stamp counter in whole megahertz.

using HKEY = void*;

inline HKEY const HKEY_LOCAL_MACHINE = nullptr;
inline constexpr LONG ERROR_SUCCESS = 0;
inline constexpr DWORD KEY_READ = 0x20019;

// Opens a key for reading. Returns `ERROR_SUCCESS`, or another value if there is no such
// key.
LONG RegOpenKeyExA(HKEY root, char const* key, DWORD options, DWORD access, HKEY* result);

// Copies a value of at most `*size` bytes to `data`. `reserved` and `type` are null.
// Returns `ERROR_SUCCESS`, or another value if there is no such value or it is longer.
LONG RegQueryValueExA(HKEY key, char const* value, DWORD* reserved, DWORD* type,
                      unsigned char* data, DWORD* size);

LONG RegCloseKey(HKEY key);

// Text conversion of the C runtime: writes `value` in base `radix`, 10 or 16, in lower
// case, without leading zeros and with a terminator. Returns `text`.
char* _ultoa(unsigned long value, char* text, int radix);
char* _ui64toa(std::uint64_t value, char* text, int radix);

// The runtime heap.

// A region of `region_length` bytes. If it comes from the system, freeing it returns
// those of its pages that it shares with no other region. The caller must not touch its
// last cacheline. If the platform has a choice, byte `busy` of the region begins a
// cacheline. Returns null if memory runs out.
//     void* malloc_region(std::size_t busy);
//     void free_region(void* region);

#if defined(OVEL_SIMULATION)

void* malloc(std::size_t size);
void* calloc(std::size_t count, std::size_t size);
void* realloc(void* memory, std::size_t size);
void free(void* memory);
inline void* malloc_region(std::size_t) {
    return malloc(region_length);
}
inline void free_region(void* region) {
    free(region);
}
std::size_t _msize(void* memory);
std::uint64_t __rdtsc();

inline void* quick_pointer() {
    return nullptr;
}
inline void set_quick_pointer(void*) {}
inline void set_thread_name(char const*) {}

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
inline bool other_threads_have_ended() {
    return false;
}

#else

void set_thread_name(char const* name);
bool at_fork(fork_handlers const& handlers);

using ::calloc;
using ::free;
using ::malloc;
using ::realloc;

// The number of bytes that the heap has reserved for `memory`, at least those requested.
// `memory` is not a region.
std::size_t _msize(void* memory);

void* malloc_region(std::size_t busy);
void free_region(void* region);

// The instructions: `YieldProcessor` (ovel_kernel.h), the atomic operations
// (ovel_atomic.h) and the time-stamp counter of the processor that the caller runs on.
using ::__rdtsc;

#endif

}  // namespace kernel

}  // namespace ovel

#endif

namespace ovel {

inline namespace kernel {

// The processor's carry-less multiplication (PCLMULQDQ): none, one pair of words at a
// time, or two or four pairs (VPCLMULQDQ). Each includes those before.
enum class carryless { none, single, pairs, fours };

// On every platform the compiler's runtime queries the processor when the library is
// loaded, and checks that the system saves the registers. Reading the result takes a few
// loads. It is `none` before the load.
inline carryless carryless_multiplication() {
    if (__builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("vpclmulqdq") != 0)
        return __builtin_cpu_supports("avx512f") != 0 ? carryless::fours : carryless::pairs;
    if (__builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("sse4.1") != 0)
        return carryless::single;
    return carryless::none;
}

}  // namespace kernel

}  // namespace ovel

#endif
