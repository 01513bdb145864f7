// The entry point of the DLL.

#include "../kernel.h"  // not the one beside this

// The compiler's runtime would run constructors of thread-local variables from here. The
// library has none. With that support linked in, it would have static thread-local
// storage, and the system would keep notifying it of threads.
extern "C" PIMAGE_TLS_CALLBACK const __dyn_tls_init_callback = nullptr;

namespace {

bool process_ends = false;

}  // namespace

bool ovel::kernel::other_threads_have_ended() {
    return process_ends;
}

// The runtime calls it after it has built the global objects, and again before it
// destroys them. The library is not notified of a thread's end: a thread gives back what
// it holds by calls. `ending` is not null when it is the process that ends: the system
// has ended all other threads then.
extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void* ending) {
    process_ends = reason == DLL_PROCESS_DETACH && ending != nullptr;
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(library);
    return TRUE;
}
