// SPDX-License-Identifier: Apache-2.0
// The kernel services: everything that the library asks of an operating system
// or of the processor. The sources call these names and nothing else, so this
// page lists all that a new platform has to provide.
//
// Names, results and failure values are those of 32-bit Windows, where they are
// the system's own. On every other platform they are functions in the inline
// namespace `ovel::kernel`, with as much of each service as the library relies
// on. Unless a line says otherwise, any thread may call a service; it takes no lock of
// the library, throws nothing and needs no constructor to have run. So the services work
// from the first instruction of the process's load. They take memory from the runtime
// heap, except for regions, which may come from the system.
//
// Waiting. A wait ends only because the object was acquired or because the time given
// has passed; the layer hides interrupted and spurious wake-ups. Timeouts are
// milliseconds from the call, on the monotonic clock. A wait may end late but never
// early. A timeout of 0 never sleeps. An available unit is taken even if the time has
// already passed.
//
// Wake-ups. A posted unit wakes one sleeper, any of them. A post without sleepers makes
// no system call. What a thread wrote before it posted a unit, released a mutex or ended
// is visible to the thread whose wait takes that unit, that mutex or that end.
#ifndef OVEL_PLATFORM_KERNEL_H
#define OVEL_PLATFORM_KERNEL_H

#include "ovel_kernel.h"

#include <cstddef>
#include <cstdint>

namespace ovel {

inline namespace kernel {

inline constexpr std::size_t region_length = 65536;

// What `at_fork` takes.
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
#include "linux/quick_pointer.h"
#endif

namespace ovel {

inline namespace kernel {

// Semaphores, mutexes and threads.

// A counting semaphore of `count` units, 0 or more, that holds at most `maximum`.
// `security` and `name` are null. Null when out of memory or when the numbers are out
// of range.
HANDLE CreateSemaphoreA(void* security, LONG count, LONG maximum, char const* name);

// Posts `count` units, 1 or more. Returns 0 and posts nothing if the maximum would be
// exceeded or `semaphore` is not a semaphore. `previous` is null. Once the units are
// visible, it neither reads nor writes the object: the thread that takes a unit may
// close it.
//     BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previous);

// Takes a unit of a semaphore, the ownership of a mutex, or the end of a thread,
// and blocks until there is one or `milliseconds` have passed (`INFINITE`: never).
// `WAIT_OBJECT_0` when it was taken, `WAIT_TIMEOUT` when the time passed,
// `WAIT_FAILED` when `object` is null. The end of a thread may be taken any number of
// times; from the first time on, the thread has ended and its resources are freed.
//     DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds);

// Closes a handle. The last one ends the object; that of a thread lasts until the thread
// has ended too. No thread may wait on the object. 0 when `object` is null.
BOOL CloseHandle(HANDLE object);

// The mutex of this process called `name`; a new one, not owned, if there is none.
// `security` is null, `owned` is 0. Its owner may take it again, and releases it as
// often. Null when out of memory.
HANDLE CreateMutexA(void* security, BOOL owned, char const* name);

// Gives up the ownership of a mutex. 0 when the caller does not own it.
BOOL ReleaseMutex(HANDLE mutex);

// Starts a thread that calls `entry(argument)` at once, with at least `stack`
// bytes for its frames (0: the system's default), on any processor of the
// process. `security` is null and `flags` 0; `*identifier` receives what
// `GetCurrentThreadId` returns in it. The handle as an integer; 0 when the
// system refuses.
std::uintptr_t _beginthreadex(void* security, unsigned int stack, unsigned int (*entry)(void*),
                              void* argument, unsigned int flags, unsigned int* identifier);

// Forks.

// How often the process and those before it were forked: one more in a child than in its
// parent. Threads exist in the process that has started them only; waiting for one that
// was left behind is `WAIT_FAILED`.
//     unsigned int process_generation();

// Has a thread that forks call `before`, then fork, and call `in_parent` or `in_child`;
// in the child it is the only thread. Meanwhile no other thread is inside a service that
// changes what threads share here.
//
// Called once, when the library is loaded; without effect where processes are not
// forked. False when memory is exhausted.
//     bool at_fork(fork_handlers const& handlers);

// Whether the system has ended all other threads already, wherever they were, since the
// process ends: then no lock may be waited for.
//     bool other_threads_have_ended();

// The calling thread.

// Unlike that of any other living thread, and not 0. A read, no call.
//     unsigned long GetCurrentThreadId();
unsigned long GetCurrentProcessId();

// Stands for the calling thread, or process, in the mask services below.
HANDLE GetCurrentThread();
HANDLE GetCurrentProcess();

// The name of the calling thread for debuggers and monitors, at most 15 ASCII
// characters. Does nothing where the system keeps no names.
//     void set_thread_name(char const* name);

// Sleeps for at least `milliseconds`. With 0 it only lets another ready thread run
// first.
void Sleep(DWORD milliseconds);

// Thread-local slots. An index is 32 bits; `TLS_OUT_OF_INDEXES` when no slot is
// left. A slot reads null in every thread that has not set it since it was
// handed out, even if an earlier holder of the slot had set it. Reading is a few loads
// and never fails. Setting may need memory, and returns 0 when out of memory.
//     DWORD TlsAlloc();
//     BOOL TlsFree(DWORD index);       0 when the index is not one in use
//     void* TlsGetValue(DWORD index);
//     BOOL TlsSetValue(DWORD index, void* value);

// Fiber-local slots, which tell when a thread ends: `callback(value)` is then called on
// that thread for a value that is not null. It sets the slot to null itself, which not every
// system does. On Linux that is after the destructors of the thread's `thread_local` objects
// and amid those of its pthread keys, on Windows it may be before all of them. A value set
// from then on may be forgotten without a call. No call is made on the thread that ends the
// process by `exit`, or while the library is unloaded. The index is `FLS_OUT_OF_INDEXES` when
// no slot is left: its value is null, and cannot be set. Setting null to a slot that is not
// null always succeeds, else it returns 0 without memory.

inline constexpr DWORD FLS_OUT_OF_INDEXES = 0xffffffffu;

DWORD FlsAlloc(void (*callback)(void*));
void* FlsGetValue(DWORD index);
BOOL FlsSetValue(DWORD index, void* value);

// One more pointer of each thread, which is read without a call. A hint: it is null in a
// thread that has not set it, and always on a platform that has nothing faster than a
// slot.
//     void* quick_pointer();
//     void set_quick_pointer(void* value);

// Processors. A mask has bit i for processor i, 32 at most.

using DWORD_PTR = unsigned long;

struct SYSTEM_INFO {
    DWORD dwNumberOfProcessors;
};

// The processors of the machine, 1 to 32.
void GetSystemInfo(SYSTEM_INFO* information);

// The processors that the process may use, and those that the system has; the
// first is part of the second. 0 when `process` is not the current one.
BOOL GetProcessAffinityMask(HANDLE process, DWORD_PTR* process_mask, DWORD_PTR* system_mask);

// Restricts every thread of the process, and those to come, to `mask`. 0, with
// nothing changed, when the mask is 0 or not part of the system's.
BOOL SetProcessAffinityMask(HANDLE process, DWORD_PTR mask);

// Restricts the calling thread to `mask`. The mask it had; 0, with nothing
// changed, when the mask is 0 or not part of the process's.
DWORD_PTR SetThreadAffinityMask(HANDLE thread, DWORD_PTR mask);

// The registry. The library reads one value: "~MHz" under the key
// "HARDWARE\DESCRIPTION\System\CentralProcessor\0" of the local machine, a
// 32-bit integer, the rate of the time-stamp counter in whole megahertz.

using HKEY = void*;

inline HKEY const HKEY_LOCAL_MACHINE = nullptr;
inline constexpr LONG ERROR_SUCCESS = 0;
inline constexpr DWORD KEY_READ = 0x20019;

// Opens a key for reading. `ERROR_SUCCESS`, or another value when there is none.
LONG RegOpenKeyExA(HKEY root, char const* key, DWORD options, DWORD access, HKEY* result);

// Copies a value of at most `*size` bytes to `data`. `reserved` and `type` are null.
// `ERROR_SUCCESS`, or another value when there is none or it is longer.
LONG RegQueryValueExA(HKEY key, char const* value, DWORD* reserved, DWORD* type,
                      unsigned char* data, DWORD* size);

LONG RegCloseKey(HKEY key);

// Text, as the C runtime has it: `value` in the digits of `radix`, 10 or 16,
// lower case and without leading zeros, and a terminator. Returns `text`.
char* _ultoa(unsigned long value, char* text, int radix);
char* _ui64toa(std::uint64_t value, char* text, int radix);

// The runtime heap.

// A region of `region_length` bytes. If it comes from the system, freeing it returns
// those of its pages that it shares with no other region. Its last cacheline must not be
// touched. If the platform has a choice, byte `busy` of it begins a cacheline. Null when
// out of memory.
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
inline bool at_fork(fork_handlers const&) {
    return true;
}
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

// The bytes that the heap has reserved for `memory`, which is not a region: at least the
// requested ones.
std::size_t _msize(void* memory);

void* malloc_region(std::size_t busy);
void free_region(void* region);

// The instructions: `YieldProcessor` (ovel_kernel.h), the atomic operations
// (ovel_atomic.h) and the time-stamp counter of the processor the caller is on.
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

// On every platform the compiler's runtime asks the processor when the library is loaded,
// and checks that the system saves the registers. Reading the answer takes a few loads. It
// is `none` before that.
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
