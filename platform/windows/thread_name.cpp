// SPDX-License-Identifier: Apache-2.0
#include "../kernel.h"  // not the one next to this file

#include <iterator>

// Looked up by name, because older systems lack the function.
void ovel::kernel::set_thread_name(char const* name) {
    using set_description = HRESULT(WINAPI*)(HANDLE, wchar_t const*);
    HMODULE const system = GetModuleHandleA("kernel32.dll");
    FARPROC const found =
        system != nullptr ? GetProcAddress(system, "SetThreadDescription") : nullptr;
    if (found == nullptr)
        return;
    wchar_t wide[16] = {};
    for (std::size_t i = 0; i + 1 != std::size(wide) && name[i] != '\0'; ++i)
        wide[i] = static_cast<wchar_t>(name[i]);
    reinterpret_cast<set_description>(reinterpret_cast<void*>(found))(GetCurrentThread(), wide);
}
