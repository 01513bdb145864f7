// The entry point of the DLL.

#include "ovel_kernel.h"

// The compiler's runtime would run constructors of thread-local variables from
// here. The library has none; with that support linked in, it would have static
// thread-local storage, and the system would go on notifying it of threads.
extern "C" PIMAGE_TLS_CALLBACK const __dyn_tls_init_callback = nullptr;

// The runtime calls it when it has built the global objects, and again before it
// destroys them. The library learns of no thread's end: what a thread holds of it
// is given up by calls.
extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(library);
    return TRUE;
}
