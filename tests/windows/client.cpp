// SPDX-License-Identifier: Apache-2.0
// Loads the library as programs do that are not linked to it, and leaves it in the
// way that its argument says: "return" from main, "exit", or "free", which unloads
// the library before any of its threads was started. Tells, in their order, what
// the library does meanwhile with its threads and its pool.

#include "imports.h"
#include "use.h"

#include <process.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

holdings held;
HANDLE recycler;  // its thread
bool leaving;
HANDLE ended;         // the thread whose end was last waited for
unsigned int joined;  // threads that were waited for and closed, the recycler's apart

void tell(std::string_view text) {
    DWORD written;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()),
              &written, nullptr);
}

// The recycler is known by the stack of its thread.
std::uintptr_t __cdecl begin_thread(void* security, unsigned int stack,
                                    unsigned int(__stdcall* entry)(void*), void* argument,
                                    unsigned int flags, unsigned int* identifier) {
    std::uintptr_t const thread =
        _beginthreadex(security, stack, entry, argument, flags, identifier);
    if (stack == 65536)
        recycler = reinterpret_cast<HANDLE>(thread);
    return thread;
}

DWORD WINAPI wait(HANDLE object, DWORD milliseconds) {
    DWORD const result = WaitForSingleObject(object, milliseconds);
    if (result == WAIT_OBJECT_0)
        ended = object;
    return result;
}

BOOL WINAPI close(HANDLE object) {
    if (leaving && object == held.pool_lock)
        tell(joined == held.idle ? "idle threads joined, pool destroyed\n"
                                 : "pool destroyed, but not all its threads joined\n");
    else if (leaving && object == recycler)
        tell(ended == recycler ? "recycler joined\n" : "recycler not waited for\n");
    else if (leaving && object == ended && GetThreadId(object) != 0)
        ++joined;
    return CloseHandle(object);
}

}  // namespace

int main(int, char** arguments) {
    std::string_view const way = arguments[1];
    HMODULE const library = LoadLibraryA("ovel.dll");
    if (library == nullptr || !lead_import(library, "_beginthreadex", begin_thread) ||
        !lead_import(library, "WaitForSingleObject", wait) ||
        !lead_import(library, "CloseHandle", close))
        return 1;
    HMODULE const user = LoadLibraryA("ovel_windows_use.dll");
    if (user == nullptr)
        return 2;
    auto* const use =
        reinterpret_cast<use_function*>(reinterpret_cast<void*>(GetProcAddress(user, "use")));
    held = use(way != "free");
    leaving = true;
    if (way == "exit")
        std::exit(0);
    if (way == "free") {
        FreeLibrary(user);
        FreeLibrary(library);
        tell("freed\n");
        return GetModuleHandleA("ovel.dll") == nullptr ? 0 : 3;
    }
    return 0;
}
