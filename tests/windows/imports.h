// SPDX-License-Identifier: Apache-2.0
// Redirects calls of a loaded library to other libraries: they go through pointers in its table
// of imports.
#ifndef OVEL_WINDOWS_IMPORTS_H
#define OVEL_WINDOWS_IMPORTS_H

#include "ovel_kernel.h"

#include <cstring>

// Redirects all calls of `library` to the function `name` of another library to `function`.
// Returns whether there are any.
template <class Function>
bool lead_import(HMODULE library, char const* name, Function* function) {
    auto* const base = reinterpret_cast<unsigned char*>(library);
    auto const* const start = reinterpret_cast<IMAGE_DOS_HEADER const*>(base);
    auto const* const headers = reinterpret_cast<IMAGE_NT_HEADERS const*>(base + start->e_lfanew);
    auto const& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    auto const* imported =
        reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR const*>(base + directory.VirtualAddress);
    for (; imported->Name != 0; ++imported) {
        auto const* names =
            reinterpret_cast<IMAGE_THUNK_DATA const*>(base + imported->OriginalFirstThunk);
        auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + imported->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            auto const* const entry =
                reinterpret_cast<IMAGE_IMPORT_BY_NAME const*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<char const*>(entry->Name), name) != 0)
                continue;
            DWORD before;
            VirtualProtect(addresses, sizeof *addresses, PAGE_READWRITE, &before);
            addresses->u1.Function = reinterpret_cast<DWORD>(function);
            VirtualProtect(addresses, sizeof *addresses, before, &before);
            return true;
        }
    }
    return false;
}

#endif
