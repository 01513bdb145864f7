// The entry point of the DLL.

#include "ovel_kernel.h"

// The runtime has built the global objects when it calls this, and calls it no
// more when it destroys them. The library learns of no thread's end: what a thread
// holds of it is given up by calls.
extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(library);
    return TRUE;
}
