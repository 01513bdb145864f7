// SPDX-License-Identifier: Apache-2.0
// Loads the library at run time and ends as its argument says: "return" from main, "exit", or
// "free", which unloads the library before any of its threads was started.

#include "use.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void tell(std::string_view text) {
    DWORD written;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()),
              &written, nullptr);
}

}  // namespace

int main(int, char** arguments) {
    std::string_view const way = arguments[1];
    HMODULE const library = LoadLibraryA("ovel.dll");
    if (library == nullptr)
        return 1;
    HMODULE const user = LoadLibraryA("ovel_windows_use.dll");
    if (user == nullptr)
        return 2;
    auto* const use =
        reinterpret_cast<use_function*>(reinterpret_cast<void*>(GetProcAddress(user, "use")));
    use(way != "free");
    tell("used\n");
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
