// SPDX-License-Identifier: Apache-2.0
// The DLL's entry point, and the slot that reports the end of a thread.

#include "../kernel.h"  // not the one next to this file
#include "ovel_atomic.h"

// From here the compiler's runtime would run constructors of thread-local variables. The
// library has none. With that support linked in, it would have static thread-local
// storage, and the system would keep notifying it of threads.
extern "C" PIMAGE_TLS_CALLBACK const __dyn_tls_init_callback = nullptr;

namespace ovel {

namespace {

bool process_ends = false;

DWORD slot = FLS_OUT_OF_INDEXES;
void(WINAPI* thread_ends)(void*);
BOOLEAN(NTAPI* process_is_ending)();
// Relaxed: the thread that writes it also makes the calls that must read true.
constinit detail::atomic<bool> unloading{false};

// The system also calls this for the values of all threads when the slot is freed, and on
// the thread that ends the process, before it calls `DllMain`. By then it has ended all
// other threads, and some of them may have held a lock of the library.
void WINAPI call(void* value) {
    if (!unloading.load(std::memory_order_relaxed) && !process_is_ending())
        thread_ends(value);
}

}  // namespace

bool kernel::other_threads_have_ended() {
    return process_ends || (process_is_ending != nullptr && process_is_ending());
}

DWORD kernel::FlsAlloc(void(WINAPI* callback)(void*)) {
    thread_ends = callback;
    process_is_ending = reinterpret_cast<BOOLEAN(NTAPI*)()>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlDllShutdownInProgress")));
    return slot = ::FlsAlloc(call);
}

}  // namespace ovel

// The runtime calls this after it has built the global objects, and again before it
// destroys them. If the process is ending, `ending` is not null, and the system has
// already ended all other threads. When the library is unloaded, it frees its slot,
// because the system must not call `call` any more.
extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void* ending) {
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(library);
    if (reason == DLL_PROCESS_DETACH) {
        ovel::process_ends = ending != nullptr;
        if (!ovel::process_ends) {
            ovel::unloading.store(true, std::memory_order_relaxed);
            FlsFree(ovel::slot);
        }
    }
    return TRUE;
}
